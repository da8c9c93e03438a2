#include "app/command_line.h"

#include <algorithm>

#include "update/version.h"

namespace {

constexpr const char* kUsage =
    "Usage: ondrel [SERVER]\n"
    "\n"
    "Opens the Ondrel window on SERVER: an instance name, a host or a URL.\n"
    "Without it, \"server\" from ~/.config/ondrel/config.json is used, and\n"
    "failing that a small window asks for it.\n"
    "\n"
    "  --version   print the version and exit\n"
    "  --help      print this help and exit\n";

bool has(const std::vector<std::string>& args, std::initializer_list<const char*> options) {
  return std::any_of(args.begin(), args.end(), [&](const std::string& arg) {
    return std::any_of(options.begin(), options.end(), [&](const char* option) { return arg == option; });
  });
}

}  // namespace

std::optional<int> ondrelRunCommandLine(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
  if (has(args, {"--help", "-h"})) {
    out << kUsage;
    return 0;
  }
  if (has(args, {"--version"})) {
    out << "Ondrel " << ondrelCurrentVersion() << " (build " << ondrelCurrentBuild() << ")\n";
    return 0;
  }
  return std::nullopt;
}
