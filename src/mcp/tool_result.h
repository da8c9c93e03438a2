#pragma once

#include <optional>
#include <string_view>

#include "base/json.h"

// Largest image (base64 characters) handed to the web application; four at
// most per result.
constexpr size_t kMcpMaxImageChars = 8000000;
constexpr size_t kMcpMaxImages = 4;

// {"mimeType", "data"} for an image, or nullopt when data is not a string,
// is empty or is longer than the cap. The base64 text is passed on untouched.
// A type that is not an image type (after lower-casing) becomes "image/png".
std::optional<Json> McpImageBlock(const Json& data, const Json& mimeType);

// The flat object the web application receives for a tools/call result:
// "isError", "structuredContent", "text" (pieces joined by newlines) and
// "images", each only when there is something to say; { "text": "" } when
// there is nothing at all.
Json ondrelConvertToolResult(const Json& result);

// Length of UTF-8 text in UTF-16 code units, the unit the limits count in.
size_t ondrelUtf16Length(std::string_view utf8);
