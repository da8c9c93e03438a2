#include "base/log.h"

#include <glib.h>

#include <mutex>
#include <utility>

#include "base/main_thread.h"
#include "base/newest_lines.h"

namespace {

// Lines on their way to the panel. One hop to the main thread carries every
// line logged until it runs, rather than one hop per line.
struct PanelFeed {
  std::mutex lock;
  NewestLines waiting{kLogPanelMaxLines};
  bool hopQueued = false;
  bool wakesWanted = true;
  std::function<void()> wake;
};

PanelFeed& panelFeed() {
  static auto* feed = new PanelFeed;  // never destroyed: threads may log at exit
  return *feed;
}

void deliverToPanel() {
  PanelFeed& feed = panelFeed();
  {
    std::lock_guard guard(feed.lock);
    feed.hopQueued = false;
    if (!feed.wake) {
      feed.waiting.take(kLogPanelMaxLines);
      return;
    }
  }
  feed.wake();
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
  PanelFeed& feed = panelFeed();
  // A megabyte-long line would stall the panel's layout; the system log
  // keeps the whole line.
  std::string shortened;
  if (line.size() > kLogLineDisplayLimit) shortened = abbreviateForLog(line);
  bool hop;
  {
    std::lock_guard guard(feed.lock);
    feed.waiting.appendLine(shortened.empty() ? line : shortened);
    // Without a panel yet, the hop is what drops the line from it.
    hop = (feed.wakesWanted || !feed.wake) && !std::exchange(feed.hopQueued, true);
  }
  if (hop) runOnMain(deliverToPanel);
}

void setLogPanelSink(std::function<void()> wake) {
  PanelFeed& feed = panelFeed();
  std::lock_guard guard(feed.lock);
  feed.wake = std::move(wake);
}

void setLogPanelWakes(bool wanted) {
  PanelFeed& feed = panelFeed();
  std::lock_guard guard(feed.lock);
  feed.wakesWanted = wanted;
}

std::string takeLogPanelText(size_t maxLines) {
  PanelFeed& feed = panelFeed();
  std::lock_guard guard(feed.lock);
  return feed.waiting.take(maxLines);
}

std::string abbreviateForLog(const std::string& text, size_t limit) {
  if (text.size() <= limit) return text;
  size_t cut = limit;
  // Back up to the start of a UTF-8 character.
  while (cut > 0 && (static_cast<unsigned char>(text[cut]) & 0xC0) == 0x80) --cut;
  return text.substr(0, cut) + "… (" + std::to_string(text.size()) + " bytes in all)";
}
