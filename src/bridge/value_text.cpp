#include "bridge/value_text.h"

#include <glib.h>

std::string valueText(const Json& value) {
  if (value.is_string()) return value.get<std::string>();
  if (value.is_null()) return "(null)";
  if (value.is_boolean()) return value.get<bool>() ? "1" : "0";
  if (value.is_number_float()) {
    char buffer[G_ASCII_DTOSTR_BUF_SIZE];
    g_ascii_formatd(buffer, sizeof buffer, "%.15g", value.get<double>());
    return buffer;
  }
  return value.dump(-1, ' ', false, Json::error_handler_t::replace);
}

bool valueTruth(const Json& value) {
  if (value.is_boolean()) return value.get<bool>();
  if (value.is_number()) return value.get<double>() != 0.0;
  return false;
}
