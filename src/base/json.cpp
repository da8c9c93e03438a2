#include "base/json.h"

std::optional<Json> parseJson(std::string_view text) {
  Json value = Json::parse(text.begin(), text.end(), nullptr, /*allow_exceptions=*/false);
  if (value.is_discarded()) return std::nullopt;
  return value;
}

std::string describeJson(const Json& value) {
  return value.dump(-1, ' ', false, Json::error_handler_t::replace);
}
