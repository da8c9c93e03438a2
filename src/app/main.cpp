#include <csignal>
#include <iostream>

#include "app/application_gtk.h"
#include "app/command_line.h"
#include "base/system_log.h"

int main(int argc, char** argv) {
  // A child's closed pipe must never kill the app.
  std::signal(SIGPIPE, SIG_IGN);

  // --help, --version and the terminal commands need no display.
  if (auto status = ondrelRunCommandLine({argv + (argc > 0), argv + argc}, std::cout, std::cerr)) return *status;
  // After the command line: "ondrel mcp" installs a writer of its own.
  installSystemLogWriter();

  OndrelApplication app;
  return app.run(argc, argv);
}
