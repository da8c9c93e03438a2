#include "bridge/sandbox_args.h"

#include "bridge/protected_paths.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <tuple>
#include <vector>

namespace {

using Args = std::vector<std::string>;

// Where `items` first appears as a run inside args, or -1.
long position(const Args& args, const Args& items) {
  auto at = std::search(args.begin(), args.end(), items.begin(), items.end());
  return at == args.end() ? -1 : static_cast<long>(at - args.begin());
}

TEST(SandboxArgs, ReadOnlyMountsComeAfterEveryWritablePlaceWhereverThatIs) {
  // TMPDIRs and working directories inside, equal to or above the protected
  // folders: later mounts cover earlier ones, so the read-only ones must be last.
  const std::tuple<std::string, std::string, bool> cases[] = {{"/home/u/.ssh", "/home/u/.gnupg/x", false},
                                                              {"/home/u/.ssh/sub", "/tmp/x", true},
                                                              {"/", "/home", true},
                                                              {"/proc", "/proc/sys/k", true}};
  for (const auto& [work, tmp, tmpKept] : cases) {
    SandboxPaths paths{.home = "/home/u", .workDir = work, .tmpDir = tmp, .readOnly = {"/home/u/.config/ondrel"},
                       .doors = {{"/run/user/1/bus"}, {"/tmp/.X11-unix"}}};
    Args args = buildSandboxArgs(paths, "true");
    EXPECT_EQ(position(args, {"--ro-bind", "/", "/"}), 1) << work;
    EXPECT_GE(position(args, {"--bind", work, work}), 0) << work;
    EXPECT_EQ(position(args, {"--bind", tmp, tmp}) >= 0, tmpKept) << tmp;
    long lastBind = -1;
    for (size_t i = 0; i < args.size(); ++i)
      if (args[i] == "--bind") lastBind = static_cast<long>(i);
    const Args covered[] = {{"--ro-bind", "/home/u/.ssh", "/home/u/.ssh"},
                            {"--ro-bind", "/home/u/.gnupg", "/home/u/.gnupg"},
                            {"--ro-bind", "/home/u/.config/ondrel", "/home/u/.config/ondrel"},
                            {"--ro-bind", "/proc/sys", "/proc/sys"},
                            {"--ro-bind", "/dev/null", "/run/user/1/bus"},
                            {"--tmpfs", "/tmp/.X11-unix", "--remount-ro", "/tmp/.X11-unix"}};
    for (const auto& mount : covered) EXPECT_GT(position(args, mount), lastBind) << work << " " << mount[1];
  }
}

TEST(SandboxArgs, TheCommandRunsUnprivilegedWithoutTheDesktopAndOptionallyOffline) {
  for (bool network : {true, false}) {
    Args args = buildSandboxArgs({.home = "/h", .workDir = "/w", .network = network}, "make 'a b'", 3);
    long dashes = position(args, {"--", "/bin/bash", "-lc", "make 'a b'"});
    EXPECT_EQ(dashes + 4, static_cast<long>(args.size())) << "the command is one argument, last";
    EXPECT_EQ(args[0], "/usr/bin/bwrap") << "never found through a PATH a command could plant into";
    for (const Args& option : {Args{"--json-status-fd", "3"}, Args{"--chdir", "/w"}, Args{"--cap-drop", "ALL"},
                               Args{"--disable-userns"}, Args{"--die-with-parent"}, Args{"--new-session"},
                               Args{"--unsetenv", "DISPLAY"}, Args{"--unsetenv", "DBUS_SESSION_BUS_ADDRESS"},
                               Args{"--unsetenv", "WAYLAND_DISPLAY"}}) {
      long at = position(args, option);
      EXPECT_TRUE(at >= 0 && at < dashes) << option[0] << " is bubblewrap's, before the command";
    }
    EXPECT_EQ(position(args, {"--unshare-net"}) >= 0, !network);
  }
  EXPECT_EQ(position(buildSandboxArgs({.home = "/h", .workDir = "/w"}, "true"), {"--json-status-fd"}), -1);
}

TEST(SandboxArgs, BusAddressesNameTheirSocketPaths) {
  const std::pair<std::string, Args> cases[] = {
      {"unix:path=/run/user/1000/bus", {"/run/user/1000/bus"}},
      {"unix:path=/tmp/a%20b,guid=1234;unix:abstract=/tmp/dbus-x", {"/tmp/a b"}},
      {"unix:guid=1,path=/x/y;tcp:host=localhost,port=1;unix:path=/z", {"/x/y", "/z"}},
      {"disabled:", {}},
      {"", {}},
  };
  for (const auto& [address, paths] : cases) EXPECT_EQ(busSocketPaths(address), paths) << address;
}

TEST(SandboxArgs, WhatTheDesktopRunsLaterAndItsDisplayAreCovered) {
  for (const char* configHome : {"/h/.config", "/xdg"}) {
    const Args folders = readOnlyPlan("/h", configHome, std::nullopt, {}).folders;
    for (const char* name : {"autostart", "systemd/user", "environment.d"})
      EXPECT_EQ(std::count(folders.begin(), folders.end(), std::string(configHome) + "/" + name), 1) << name;
    // The app's own settings, data and web cache, wherever the desktop's configuration is.
    for (const char* own : {"/h/.config/ondrel", "/h/.local/share/ondrel", "/h/.cache/ondrel"})
      EXPECT_EQ(std::count(folders.begin(), folders.end(), own), 1) << own;
  }
  if (access("/tmp/.X11-unix", F_OK) == 0) {
    EXPECT_EQ(findDesktopDoors("", "").folders, Args{"/tmp/.X11-unix"});
  }
}

TEST(SandboxArgs, PathRulesWorkOnWholeComponents) {
  const std::tuple<const char*, const char*, bool> cases[] = {
      {"/a/b", "/a/b", true}, {"/a/b/c", "/a/b", true}, {"/a/bc", "/a/b", false},
      {"/a", "/a/b", false},  {"/anything", "/", true}, {"relative", "/", false}};
  for (const auto& [path, folder, inside] : cases) EXPECT_EQ(isSameOrInside(path, folder), inside) << path << folder;
  EXPECT_EQ(protectedFolders("/"), (Args{"/.ssh", "/.gnupg"}));
  // "/" would make everything writable, and one inside a protected folder that folder.
  const std::pair<const char*, bool> tmpDirs[] = {{"/", false},       {"", false},     {"/.gnupg", false},
                                                  {"/.ssh/x", false}, {"/.sshx", true}, {"/tmp", true}};
  for (const auto& [tmp, usable] : tmpDirs) EXPECT_EQ(tmpDirIsUsable(tmp, "/"), usable) << tmp;
}

}  // namespace
