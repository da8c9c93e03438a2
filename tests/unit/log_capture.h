#pragma once

// The lines logLine sends to the system log, exactly as a user would find them in the journal.

#include <glib.h>

#include <cstring>
#include <mutex>
#include <string>
#include <vector>

class LogCapture {
 public:
  // GLib accepts one writer per process, so every test file shares this one.
  static LogCapture& instance() {
    static LogCapture* capture = [] {
      auto* c = new LogCapture;
      g_log_set_writer_func(&LogCapture::write, c, nullptr);
      return c;
    }();
    return *capture;
  }

  void clear() {
    std::lock_guard lock(mutex_);
    lines_.clear();
  }

  std::vector<std::string> lines() const {
    std::lock_guard lock(mutex_);
    return lines_;
  }

  size_t countStartingWith(const std::string& prefix) const {
    size_t n = 0;
    for (const auto& line : lines())
      if (line.rfind(prefix, 0) == 0) ++n;
    return n;
  }

 private:
  static GLogWriterOutput write(GLogLevelFlags level, const GLogField* fields, gsize count, gpointer data) {
    std::string domain, message;
    for (gsize i = 0; i < count; ++i) {
      const auto* value = static_cast<const char*>(fields[i].value);
      const std::string text = fields[i].length < 0 ? std::string(value) : std::string(value, fields[i].length);
      if (std::strcmp(fields[i].key, "GLIB_DOMAIN") == 0) domain = text;
      if (std::strcmp(fields[i].key, "MESSAGE") == 0) message = text;
    }
    if (domain != "ondrel") return g_log_writer_default(level, fields, count, data);
    auto* self = static_cast<LogCapture*>(data);
    std::lock_guard lock(self->mutex_);
    self->lines_.push_back(std::move(message));
    return G_LOG_WRITER_HANDLED;
  }

  mutable std::mutex mutex_;
  std::vector<std::string> lines_;
};
