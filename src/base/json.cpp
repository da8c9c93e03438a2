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

namespace {

void appendBounded(std::string& out, const Json& value, size_t limit) {
  if (out.size() >= limit) return;
  if (value.is_string()) {
    const std::string& text = value.get_ref<const std::string&>();
    size_t room = limit - out.size();
    if (text.size() <= room) {
      out += value.dump(-1, ' ', false, Json::error_handler_t::replace);
      return;
    }
    while (room > 0 && (static_cast<unsigned char>(text[room]) & 0xC0) == 0x80) --room;
    out += Json(text.substr(0, room)).dump(-1, ' ', false, Json::error_handler_t::replace);
    return;
  }
  if (value.is_array() || value.is_object()) {
    out += value.is_array() ? '[' : '{';
    bool first = true;
    for (auto it = value.begin(); it != value.end(); ++it) {
      if (out.size() >= limit) return;
      if (!first) out += ',';
      first = false;
      if (value.is_object()) out += Json(it.key()).dump(-1, ' ', false, Json::error_handler_t::replace) + ':';
      appendBounded(out, it.value(), limit);
    }
    out += value.is_array() ? ']' : '}';
    return;
  }
  out += value.dump();
}

}  // namespace

std::string describeJsonBounded(const Json& value, size_t limit) {
  std::string out;
  appendBounded(out, value, limit);
  if (out.size() < limit) return out;
  return out + "…";
}
