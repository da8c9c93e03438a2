#pragma once

#include <optional>
#include <string>

#include "base/json.h"

// Positional arguments of a page request: a missing element, or one of the
// wrong type, counts as absent.
inline const Json* argAt(const Json& args, size_t index) {
  if (!args.is_array() || index >= args.size()) return nullptr;
  return &args[index];
}

inline std::optional<std::string> stringArg(const Json& args, size_t index) {
  const Json* value = argAt(args, index);
  if (!value || !value->is_string()) return std::nullopt;
  return value->get<std::string>();
}
