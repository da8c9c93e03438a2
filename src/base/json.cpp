#include "base/json.h"

#include "base/files.h"

std::optional<Json> parseJson(std::string_view text) {
  Json value = Json::parse(text.begin(), text.end(), nullptr, /*allow_exceptions=*/false);
  if (value.is_discarded()) return std::nullopt;
  return value;
}

std::string describeJson(const Json& value) {
  return value.dump(-1, ' ', false, Json::error_handler_t::replace);
}

std::optional<Json> readJsonObjectFile(const std::string& path) {
  auto bytes = readWholeFile(path);
  if (!bytes) return std::nullopt;
  auto parsed = parseJson(*bytes);
  if (!parsed || !parsed->is_object()) return std::nullopt;
  return parsed;
}
