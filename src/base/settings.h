#pragma once

#include <optional>
#include <string>

#include "base/json.h"

// Readers of ~/.config/ondrel/config.json. Read afresh on every call (no
// cache), silent on any fault, callable from any thread.

// The top-level object, or nullopt when the file is missing, unreadable,
// not JSON or not an object.
std::optional<Json> ondrelReadConfig();

// A top-level key's value when it is a non-empty string.
std::optional<std::string> ondrelConfigString(const std::string& key);

// "updateEnabled": absent means enabled; false, 0 and null switch updates off.
bool ondrelUpdatesEnabled();
