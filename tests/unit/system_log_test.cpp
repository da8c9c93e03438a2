#include <glib.h>
#include <gtest/gtest.h>

#include <clocale>
#include <tuple>

#include "base/system_log.h"

// The app's writer puts on standard error exactly what GLib's default writer would: people grep that log.

namespace {

std::string glibText(const std::string& message) {
  const GLogField fields[] = {
      {"GLIB_DOMAIN", "ondrel", -1},
      {"MESSAGE", message.c_str(), static_cast<gssize>(message.size())},
      {"PRIORITY", "5", -1},
  };
  gchar* text = g_log_writer_format_fields(G_LOG_LEVEL_MESSAGE, fields, G_N_ELEMENTS(fields), FALSE);
  std::string result = std::string(text) + "\n";
  g_free(text);
  return result;
}

// "ondrel-Message: HH:MM:SS.mmm: " has the clock at a fixed place.
std::string withoutClock(std::string text) { return text.size() > 28 ? text.erase(16, 12) : text; }

TEST(SystemLog, TextIsGLibsOwnOrLeftToGLib) {
  // The message, the locale (which decides the console's character set), whether the text is ours.
  const std::tuple<std::string, const char*, bool> cases[] = {
      {"[Native->JS] d\n  request id=1-2 invoke(greet)\tend", "C", true},
      {"[Native->JS] greet → hello “quoted”", "C.UTF-8", true},
      {"[Native->JS] greet → hello", "C", false},
      {"bell \x07 here", "C.UTF-8", false},
      {"c1 \xc2\x85 next line", "C.UTF-8", false},
      {"bad \xff utf-8", "C.UTF-8", false},
      {"", "C.UTF-8", true},
  };
  const std::string saved = setlocale(LC_ALL, nullptr);
  for (const auto& [message, locale, ours] : cases) {
    ASSERT_TRUE(setlocale(LC_ALL, locale)) << locale;
    const auto text = systemLogText(message, g_get_real_time(), g_get_console_charset(nullptr));
    ASSERT_EQ(text.has_value(), ours) << message;
    if (text) {
      EXPECT_EQ(withoutClock(*text), withoutClock(glibText(message))) << message;
    }
  }
  setlocale(LC_ALL, saved.c_str());
}

TEST(SystemLog, ClockIsLocalTimeToTheMillisecond) {
  const gint64 now = g_get_real_time();
  GDateTime* local = g_date_time_new_from_unix_local(now / G_USEC_PER_SEC);
  gchar* clock = g_date_time_format(local, "%H:%M:%S");
  const std::string expected = std::string("ondrel-Message: ") + clock + "." +
                               std::to_string(now / 1000 % 1000 + 1000).substr(1) + ": x\n";
  g_free(clock);
  g_date_time_unref(local);
  EXPECT_EQ(systemLogText("x", now, true), expected);
}

}  // namespace
