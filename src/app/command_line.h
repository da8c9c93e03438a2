#pragma once

#include <optional>
#include <ostream>
#include <string>
#include <vector>

// The uses of the command line that need no display: --version, --help and
// the "mcp" commands. They run before GTK is initialised, so they work over
// SSH, in scripts and in a terminal without a session.
//
// args excludes the program name. Returns the exit status when the command
// line asked for one of them, nullopt when the window is to start.
std::optional<int> ondrelRunCommandLine(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);
