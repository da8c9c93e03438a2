#pragma once

#include "base/json.h"

// {"name": "Linux", "version": kernel "major.minor.patch", "user", "home"}.
Json platformInfo();

// "6.1.0-18-amd64" → "6.1.0"; missing parts count as 0.
std::string kernelVersionTriple(const std::string& release);
