#include "base/system_log.h"

#include <glib.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace {

// GLib escapes C0 controls but tab, line feed and a carriage return before
// a line feed; DEL; and C1 controls. Anything else valid passes as it is.
bool glibKeepsAsItIs(std::string_view text, bool utf8Console) {
  bool ascii = true;
  for (size_t i = 0; i < text.size(); ++i) {
    const auto c = static_cast<unsigned char>(text[i]);
    if (c < 0x20 && c != '\t' && c != '\n') return false;
    if (c == 0x7f) return false;
    if (c >= 0x80) {
      ascii = false;
      if (c == 0xc2 && i + 1 < text.size() && static_cast<unsigned char>(text[i + 1]) < 0xa0) return false;
    }
  }
  if (ascii) return true;
  return utf8Console && g_utf8_validate_len(text.data(), text.size(), nullptr);
}

// The clock part of the time stamp, worked out once per second.
void appendClock(std::string& out, int64_t realTimeUs) {
  thread_local time_t cachedSecond = -1;
  thread_local char clock[16];
  const time_t second = static_cast<time_t>(realTimeUs / 1000000);
  if (second != cachedSecond) {
    struct tm local {};
    localtime_r(&second, &local);
    strftime(clock, sizeof clock, "%H:%M:%S", &local);
    cachedSecond = second;
  }
  out += clock;
  const int ms = static_cast<int>((realTimeUs / 1000) % 1000);
  out += '.';
  out += static_cast<char>('0' + ms / 100);
  out += static_cast<char>('0' + ms / 10 % 10);
  out += static_cast<char>('0' + ms % 10);
}

bool plainStderr() {
  static const bool plain = [] {
    const char* prefixed = std::getenv("G_MESSAGES_PREFIXED");
    return !g_log_writer_is_journald(STDERR_FILENO) && !g_log_writer_supports_color(STDERR_FILENO) &&
           !(prefixed && *prefixed);
  }();
  return plain;
}

bool writeAll(const std::string& text) {
  size_t done = 0;
  while (done < text.size()) {
    ssize_t n = ::write(STDERR_FILENO, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

GLogWriterOutput writer(GLogLevelFlags level, const GLogField* fields, gsize count, gpointer data) {
  if (level == G_LOG_LEVEL_MESSAGE && plainStderr()) {
    std::string_view domain, message;
    bool haveMessage = false;
    for (gsize i = 0; i < count; ++i) {
      const char* value = static_cast<const char*>(fields[i].value);
      const std::string_view text = fields[i].length < 0 ? std::string_view(value)
                                                         : std::string_view(value, static_cast<size_t>(fields[i].length));
      if (std::strcmp(fields[i].key, "GLIB_DOMAIN") == 0) domain = text;
      if (std::strcmp(fields[i].key, "MESSAGE") == 0) {
        message = text;
        haveMessage = true;
      }
    }
    static const bool utf8Console = g_get_console_charset(nullptr);
    if (haveMessage && domain == "ondrel") {
      if (auto text = systemLogText(message, g_get_real_time(), utf8Console))
        return writeAll(*text) ? G_LOG_WRITER_HANDLED : G_LOG_WRITER_UNHANDLED;
    }
  }
  return g_log_writer_default(level, fields, count, data);
}

}  // namespace

std::optional<std::string> systemLogText(std::string_view message, int64_t realTimeUs, bool utf8Console) {
  if (!glibKeepsAsItIs(message, utf8Console)) return std::nullopt;
  std::string out;
  out.reserve(message.size() + 32);
  out += "ondrel-Message: ";
  appendClock(out, realTimeUs);
  out += ": ";
  out += message;
  out += '\n';
  return out;
}

void installSystemLogWriter() { g_log_set_writer_func(writer, nullptr, nullptr); }
