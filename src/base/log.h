#pragma once

#include <functional>
#include <string>

// The one logging facility: the system log at once, the in-window panel
// later on the main thread. Callable from any thread.
void logLine(const std::string& line);

// Writes to the system log only (lines that must not reach the panel).
void logToSystemOnly(const std::string& line);

// The UI installs the panel append here once the panel exists. Appends that
// arrive before then are dropped from the panel; the system log has them.
// Called on the main thread only.
void setLogPanelSink(std::function<void(const std::string&)> sink);

// Lines longer than this are shortened where they would cost the UI (the
// panel lays out each line whole) or copy a page's payload for nothing.
inline constexpr size_t kLogLineDisplayLimit = 4000;

// The text cut at a character boundary to at most limit bytes, with a note
// of how much was left out; unchanged when short enough.
std::string abbreviateForLog(const std::string& text, size_t limit = kLogLineDisplayLimit);
