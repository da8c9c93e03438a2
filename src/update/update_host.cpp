#include "update/update_host.h"

#include <glib.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>

std::string UpdateHost::runningExecutable() {
  std::error_code ec;
  auto path = std::filesystem::read_symlink("/proc/self/exe", ec);
  return ec ? std::string() : path.string();
}

bool UpdateHost::launchSwapScript(const std::string& scriptPath) {
  // The script outlives us by design: its own session, no inherited
  // descriptors, nothing to reap.
  const char* argv[] = {"/bin/sh", scriptPath.c_str(), nullptr};
  return g_spawn_async(nullptr, const_cast<char**>(argv), nullptr,
                       GSpawnFlags(G_SPAWN_STDIN_FROM_DEV_NULL | G_SPAWN_STDOUT_TO_DEV_NULL |
                                   G_SPAWN_STDERR_TO_DEV_NULL),
                       [](gpointer) { setsid(); }, nullptr, nullptr, nullptr);
}

void UpdateHost::exitProcess(int status) {
  std::fflush(nullptr);
  _exit(status);
}
