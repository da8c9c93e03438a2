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
