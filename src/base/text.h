#pragma once

#include <string_view>

// Strict UTF-8: no overlong forms, surrogates or values past U+10FFFF. NUL
// bytes count as characters: a program's output or a file may hold them.
bool isValidUtf8(std::string_view bytes);
