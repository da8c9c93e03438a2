#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

// The app's GLib log writer, installed once at start. Its output is GLib's
// default writer's; only a line of ours bound for a plain standard error
// takes a shorter way: one write() instead of a terminal check, a time-zone
// check and two stdio calls per line, which a flood of lines (an MCP
// server's stderr, a burst of bridge calls) would otherwise pay each time.
void installSystemLogWriter();

// What GLib's default writer puts on a colourless standard error for
// `message` of domain "ondrel" at message level, logged at realTimeUs
// (microseconds since 1970): "ondrel-Message: HH:MM:SS.mmm: message\n".
// nullopt where GLib would change the text (escapes, a non-UTF-8 console).
std::optional<std::string> systemLogText(std::string_view message, int64_t realTimeUs, bool utf8Console);
