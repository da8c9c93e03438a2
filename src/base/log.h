#pragma once

#include <functional>
#include <string>

// The one logging facility: the system log at once, the in-window panel
// later on the main thread. Callable from any thread.
void logLine(const std::string& line);

// Writes to the system log only (lines that must not reach the panel).
void logToSystemOnly(const std::string& line);

// The UI installs the panel here once the panel exists: `wake` runs on the
// main thread, once per main-loop turn in which lines arrived, and the panel
// takes the lines with takeLogPanelText when it is ready to show them.
// Lines whose turn comes while no panel is installed never reach it; the
// system log has them. Main thread only.
void setLogPanelSink(std::function<void()> wake);

// A hidden panel needs no wake: lines wait for it all the same (the newest
// kLogPanelMaxLines), without a hop to the main thread for each turn.
void setLogPanelWakes(bool wanted);

// The oldest maxLines of the lines waiting for the panel, each followed by a
// line feed. At most the newest kLogPanelMaxLines lines wait.
std::string takeLogPanelText(size_t maxLines);

// The panel keeps this many lines and drops older ones (the system log keeps
// them all): hundreds of screens of the panel to read back through, and few
// enough that the text view lays them all out in about 0.2 s when a flood
// has replaced them all.
inline constexpr size_t kLogPanelMaxLines = 5000;

// Lines longer than this are shortened where they would cost the UI (the
// panel lays out each line whole) or copy a page's payload for nothing.
inline constexpr size_t kLogLineDisplayLimit = 4000;

// The text cut at a character boundary to at most limit bytes, with a note
// of how much was left out; unchanged when short enough.
std::string abbreviateForLog(const std::string& text, size_t limit = kLogLineDisplayLimit);
