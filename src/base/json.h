#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>

// File order is kept; code that needs sorted keys sorts explicitly.
using Json = nlohmann::ordered_json;

// Parses without throwing; nullopt for anything that is not JSON.
std::optional<Json> parseJson(std::string_view text);

// The top-level object of a JSON file; nullopt when the file is missing,
// unreadable, not JSON or not an object.
std::optional<Json> readJsonObjectFile(const std::string& path);

// Compact JSON text of a value for log lines; invalid UTF-8 is replaced
// rather than thrown on.
std::string describeJson(const Json& value);

// The same text, cut after about limit bytes: a page's 16 MB argument is not
// serialised whole just to be shortened for a log line.
std::string describeJsonBounded(const Json& value, size_t limit);
