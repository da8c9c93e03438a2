#include "base/log.h"

#include <glib.h>

#include "base/main_thread.h"

namespace {

std::function<void(const std::string&)>& panelSink() {
  static std::function<void(const std::string&)> sink;
  return sink;
}

}  // namespace

void logToSystemOnly(const std::string& line) {
  // The line travels as the MESSAGE field, never as a format string.
  const GLogField fields[] = {
      {"GLIB_DOMAIN", "ondrel", -1},
      {"MESSAGE", line.c_str(), static_cast<gssize>(line.size())},
      {"PRIORITY", "5", -1},
  };
  g_log_structured_array(G_LOG_LEVEL_MESSAGE, fields, G_N_ELEMENTS(fields));
}

void logLine(const std::string& line) {
  logToSystemOnly(line);
  runOnMain([line] {
    if (auto& sink = panelSink()) sink(line + "\n");
  });
}

void setLogPanelSink(std::function<void(const std::string&)> sink) { panelSink() = std::move(sink); }

std::string abbreviateForLog(const std::string& text, size_t limit) {
  if (text.size() <= limit) return text;
  size_t cut = limit;
  // Back up to the start of a UTF-8 character.
  while (cut > 0 && (static_cast<unsigned char>(text[cut]) & 0xC0) == 0x80) --cut;
  return text.substr(0, cut) + "… (" + std::to_string(text.size()) + " bytes in all)";
}
