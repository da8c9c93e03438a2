#include "base/settings.h"

#include "base/paths.h"

std::optional<Json> ondrelReadConfig() { return readJsonObjectFile(ondrelConfigPath()); }

std::optional<std::string> ondrelConfigString(const std::string& key) {
  auto config = ondrelReadConfig();
  if (!config) return std::nullopt;
  auto it = config->find(key);
  if (it == config->end() || !it->is_string()) return std::nullopt;
  auto value = it->get<std::string>();
  if (value.empty()) return std::nullopt;
  return value;
}

bool ondrelUpdatesEnabled() {
  auto config = ondrelReadConfig();
  if (!config) return true;
  auto it = config->find("updateEnabled");
  if (it == config->end()) return true;
  if (it->is_boolean()) return it->get<bool>();
  if (it->is_number()) return it->get<double>() != 0.0;
  // A string or container is an object reference on the original platform:
  // present and not false. null is the one falsy value left.
  return !it->is_null();
}
