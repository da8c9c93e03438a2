#include "update/update_host.h"

#include <glib.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>

#include "base/system_log.h"

bool gUpdateIsDeferred = false;

namespace {

UpdateHost* gHost = nullptr;

}  // namespace

void setUpdateHost(UpdateHost* host) { gHost = host; }

UpdateHost& updateHost() {
  // Installed by start-up before anything can reach the updater.
  g_assert(gHost != nullptr);
  return *gHost;
}

void ondrelFailUpdate(const std::string& informativeText) {
  UpdateHost& host = updateHost();
  host.hideProgress();
  host.showFailure(informativeText, [] {
    if (gUpdateIsDeferred) updateHost().stopEventLoop();
  });
}

std::string UpdateHost::runningExecutable() {
  std::error_code ec;
  auto path = std::filesystem::read_symlink("/proc/self/exe", ec);
  return ec ? std::string() : path.string();
}

bool UpdateHost::launchSwapScript(const std::string& scriptPath) {
  // The script outlives us by design: its own session, no inherited
  // descriptors, nothing to reap.
  const char* argv[] = {"/bin/sh", scriptPath.c_str(), nullptr};
  GError* error = nullptr;
  bool ok = g_spawn_async(nullptr, const_cast<char**>(argv), nullptr,
                          GSpawnFlags(G_SPAWN_STDIN_FROM_DEV_NULL | G_SPAWN_STDOUT_TO_DEV_NULL |
                                      G_SPAWN_STDERR_TO_DEV_NULL),
                          [](gpointer) { setsid(); }, nullptr, nullptr, &error);
  g_clear_error(&error);
  return ok;
}

void UpdateHost::exitProcess(int status) {
  flushSystemLog();
  std::fflush(nullptr);
  _exit(status);
}
