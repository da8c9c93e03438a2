#include "mcp/server_config.h"

#include <glib.h>

#include "base/json.h"

std::string ondrelMcpNamespace(const std::string& name) {
  static const std::string kAllowed = "abcdefghijklmnopqrstuvwxyz0123456789_-";
  std::string replaced;
  const char* p = name.c_str();
  const char* end = p + name.size();
  while (p < end) {
    gunichar c = g_utf8_get_char_validated(p, end - p);
    if (c == static_cast<gunichar>(-1) || c == static_cast<gunichar>(-2)) {
      replaced += '-';  // a stray byte counts as one unit
      ++p;
      continue;
    }
    if (c < 0x80 && kAllowed.find(static_cast<char>(c)) != std::string::npos) replaced += static_cast<char>(c);
    else replaced += c > 0xFFFF ? "--" : "-";
    p = g_utf8_next_char(p);
  }
  // Lower-casing after the replacement is deliberate (and so a no-op): a
  // namespace keeps only the characters that were lower-case already.
  g_autofree gchar* lowered = g_utf8_strdown(replaced.c_str(), static_cast<gssize>(replaced.size()));
  std::string result(lowered);
  size_t first = result.find_first_not_of('-');
  if (first == std::string::npos) return "server";
  size_t last = result.find_last_not_of('-');
  return result.substr(first, last - first + 1);
}

std::vector<std::string> ondrelMcpArgs(const Json& args) {
  std::vector<std::string> result;
  if (!args.is_array()) return result;
  for (const auto& arg : args)
    if (arg.is_string()) result.push_back(arg.get<std::string>());
  return result;
}

std::map<std::string, std::string> ondrelMcpEnv(const Json& env) {
  std::map<std::string, std::string> result;
  if (!env.is_object()) return result;
  for (const auto& [key, value] : env.items())
    if (value.is_string()) result[key] = value.get<std::string>();
  return result;
}

const Json* ondrelErrorMessage(const Json& error) {
  if (!error.is_object()) return nullptr;
  auto it = error.find("message");
  return it == error.end() ? nullptr : &*it;
}
