#include "mcp/tool_result.h"

#include <glib.h>

#include <cmath>
#include <string>
#include <vector>

size_t ondrelUtf16Length(std::string_view utf8) {
  size_t units = 0;
  for (unsigned char c : utf8) {
    if ((c & 0xC0) != 0x80) ++units;  // a lead byte starts a code point
    if (c >= 0xF0) ++units;           // outside the BMP: a surrogate pair
  }
  return units;
}

namespace {

std::string lowerCase(const std::string& text) {
  g_autofree gchar* lower = g_utf8_strdown(text.c_str(), static_cast<gssize>(text.size()));
  return lower ? lower : "";
}

bool startsWith(const std::string& text, std::string_view prefix) { return text.rfind(prefix, 0) == 0; }

bool isTrue(const Json& value) {
  if (value.is_boolean()) return value.get<bool>();
  if (value.is_number()) return value.get<double>() != 0.0;
  return false;
}

const Json* member(const Json& object, const char* key) {
  if (!object.is_object()) return nullptr;
  auto it = object.find(key);
  return it == object.end() ? nullptr : &*it;
}

std::string stringMember(const Json& object, const char* key) {
  const Json* value = member(object, key);
  return value && value->is_string() ? value->get<std::string>() : std::string();
}

// How a value reads when written into text: numbers as numbers, booleans as
// 1 or 0, null as "<null>", containers as compact JSON.
std::string plainText(const Json& value) {
  if (value.is_string()) return value.get<std::string>();
  if (value.is_boolean()) return value.get<bool>() ? "1" : "0";
  if (value.is_null()) return "<null>";
  if (value.is_number_float()) {
    double d = value.get<double>();
    if (std::isfinite(d) && d == std::floor(d) && std::fabs(d) < 1e15) return std::to_string(static_cast<long long>(d));
  }
  return value.dump(-1, ' ', false, Json::error_handler_t::replace);
}

}  // namespace

std::optional<Json> McpImageBlock(const Json& data, const Json& mimeType) {
  if (!data.is_string()) return std::nullopt;
  const auto& text = data.get_ref<const std::string&>();
  if (text.empty()) return std::nullopt;
  // Counting UTF-16 units is only needed when the bytes could exceed the cap.
  if (text.size() > kMcpMaxImageChars && ondrelUtf16Length(text) > kMcpMaxImageChars) return std::nullopt;
  std::string type = mimeType.is_string() ? lowerCase(mimeType.get<std::string>()) : std::string();
  if (!startsWith(type, "image/")) type = "image/png";
  return Json{{"mimeType", type}, {"data", data}};
}

namespace {

const char* const kUnattached = "[image content could not be attached]";

// A "resource" element: its text, its image, or a line that names it.
void addEmbeddedResource(const Json* resource, std::vector<std::string>& pieces, Json& images) {
  if (!resource || !resource->is_object()) {
    pieces.emplace_back("[resource content]");
    return;
  }
  std::string mime = stringMember(*resource, "mimeType");
  std::string blob = stringMember(*resource, "blob");
  std::string resourceText = stringMember(*resource, "text");
  if (!resourceText.empty()) {
    pieces.push_back(resourceText);
  } else if (startsWith(mime, "image/") && !blob.empty()) {
    // Past the fourth image an embedded one is dropped without a word,
    // unlike an image element: kept as the web application expects it.
    auto block = McpImageBlock(blob, mime);
    if (!block) pieces.emplace_back(kUnattached);
    else if (images.size() < kMcpMaxImages) images.push_back(std::move(*block));
  } else if (!blob.empty()) {
    pieces.push_back("[binary resource: " + (mime.empty() ? std::string("unknown type") : mime) + "]");
  } else {
    pieces.emplace_back("[resource content]");
  }
}

}  // namespace

Json ondrelConvertToolResult(const Json& result) {
  Json out = Json::object();
  std::vector<std::string> pieces;
  Json images = Json::array();

  if (const Json* flag = member(result, "isError"); flag && isTrue(*flag)) out["isError"] = true;
  if (const Json* structured = member(result, "structuredContent")) out["structuredContent"] = *structured;

  const Json* content = member(result, "content");
  if (content && content->is_array()) {
    for (const auto& element : *content) {
      if (!element.is_object()) continue;
      const Json* typeValue = member(element, "type");
      std::string type = typeValue && typeValue->is_string() ? typeValue->get<std::string>() : std::string();
      bool typed = typeValue && typeValue->is_string();
      const Json* text = member(element, "text");

      if (text && text->is_string() && !text->get_ref<const std::string&>().empty()) {
        pieces.push_back(text->get<std::string>());
      } else if (typed && type == "image") {
        const Json* data = member(element, "data");
        const Json* mime = member(element, "mimeType");
        auto block = McpImageBlock(data ? *data : Json(), mime ? *mime : Json());
        if (!block) pieces.emplace_back(kUnattached);
        else if (images.size() >= kMcpMaxImages) pieces.emplace_back("[additional image omitted]");
        else images.push_back(std::move(*block));
      } else if (typed && type == "resource") {
        addEmbeddedResource(member(element, "resource"), pieces, images);
      } else if (typed && type == "resource_link") {
        std::string label = "unknown";
        if (const Json* name = member(element, "name"); name && name->is_string()) label = name->get<std::string>();
        else if (const Json* uri = member(element, "uri"); uri && uri->is_string()) label = uri->get<std::string>();
        pieces.push_back("[resource link: " + label + "]");
      } else if (typed && type == "text" && text) {
        pieces.push_back(plainText(*text));
      }
      // Anything else (audio, unknown kinds) is not shown.
    }
  }

  if (!pieces.empty()) {
    std::string joined;
    for (size_t i = 0; i < pieces.size(); ++i) {
      if (i) joined += '\n';
      joined += pieces[i];
    }
    out["text"] = std::move(joined);
  }
  if (!images.empty()) out["images"] = std::move(images);
  if (out.empty()) out["text"] = "";
  return out;
}
