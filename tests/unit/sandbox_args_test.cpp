#include "bridge/sandbox_args.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

namespace {

using Args = std::vector<std::string>;

// Index of the first "--bind"/"--ro-bind" whose destination is dest.
long mountIndex(const Args& args, const std::string& kind, const std::string& dest) {
  for (size_t i = 0; i + 2 < args.size(); ++i)
    if (args[i] == kind && args[i + 2] == dest) return static_cast<long>(i);
  return -1;
}

long lastWritableBind(const Args& args) {
  long last = -1;
  for (size_t i = 0; i < args.size(); ++i)
    if (args[i] == "--bind") last = static_cast<long>(i);
  return last;
}

TEST(SandboxArgs, FullListKeepsTheDocumentedOrder) {
  SandboxPaths paths{.home = "/home/u", .workDir = "/home/u/project", .tmpDir = std::string("/home/u/tmp"),
                     .readOnly = {"/home/u/.bashrc", "/opt/A.AppDir"},
                     .doors = {{"/run/user/1/bus"}, {"/tmp/.X11-unix"}},
                     .network = false};
  Args expected = {"/usr/bin/bwrap",
                   "--ro-bind", "/", "/", "--dev", "/dev", "--proc", "/proc",
                   "--bind", "/home/u", "/home/u",
                   "--bind", "/tmp", "/tmp", "--bind", "/var/tmp", "/var/tmp",
                   "--bind", "/home/u/tmp", "/home/u/tmp",
                   "--bind", "/home/u/project", "/home/u/project",
                   "--ro-bind", "/home/u/.ssh", "/home/u/.ssh",
                   "--ro-bind", "/home/u/.gnupg", "/home/u/.gnupg",
                   "--ro-bind", "/home/u/.bashrc", "/home/u/.bashrc",
                   "--ro-bind", "/opt/A.AppDir", "/opt/A.AppDir",
                   "--ro-bind", "/dev/null", "/run/user/1/bus",
                   "--tmpfs", "/tmp/.X11-unix", "--remount-ro", "/tmp/.X11-unix",
                   "--unsetenv", "DBUS_SESSION_BUS_ADDRESS", "--unsetenv", "DISPLAY", "--unsetenv", "WAYLAND_DISPLAY",
                   "--unsetenv", "WAYLAND_SOCKET", "--unsetenv", "XAUTHORITY", "--unsetenv", "AT_SPI_BUS_ADDRESS",
                   "--ro-bind", "/proc/sys", "/proc/sys",
                   "--unshare-user", "--disable-userns", "--cap-drop", "ALL", "--new-session", "--die-with-parent",
                   "--unshare-net",
                   "--chdir", "/home/u/project", "--", "/bin/bash", "-lc", "make 'a b' && echo \"$HOME\""};
  EXPECT_EQ(buildSandboxArgs(paths, "make 'a b' && echo \"$HOME\""), expected);

  // The status descriptor is an option of bubblewrap, never of the command.
  Args withStatus = buildSandboxArgs(paths, "true", 3);
  auto dashes = std::find(withStatus.begin(), withStatus.end(), "--");
  auto status = std::find(withStatus.begin(), withStatus.end(), "--json-status-fd");
  ASSERT_NE(status, withStatus.end());
  EXPECT_LT(status, dashes);
  EXPECT_EQ(*(status + 1), "3");
  EXPECT_EQ(std::find(expected.begin(), expected.end(), "--json-status-fd"), expected.end());
  EXPECT_EQ(Args(dashes, withStatus.end()), (Args{"--", "/bin/bash", "-lc", "true"}));
}

TEST(SandboxArgs, ProtectedFoldersAreMountedAfterEveryWritablePlace) {
  // Working directories and TMPDIRs inside, equal to, or above the protected
  // folders: the read-only mounts must still come last to cover them.
  const std::pair<std::string, std::string> cases[] = {
      {"/home/u/.ssh", "/home/u"},         {"/home/u/.ssh/sub", "/tmp/x"}, {"/home/u/.gnupg", "/"},
      {"/", "/home/u/.gnupg/private"},     {"/home", "/home"},              {"/home/u", "/var/tmp"},
      {"/proc", "/proc/sys/kernel"},
  };
  for (const auto& [work, tmp] : cases) {
    Args args = buildSandboxArgs({.home = "/home/u", .workDir = work, .tmpDir = tmp, .readOnly = {"/home/u/.config/ondrel"}},
                                 "true");
    long settings = mountIndex(args, "--ro-bind", "/home/u/.config/ondrel");
    long ssh = mountIndex(args, "--ro-bind", "/home/u/.ssh");
    long gnupg = mountIndex(args, "--ro-bind", "/home/u/.gnupg");
    long sysctl = mountIndex(args, "--ro-bind", "/proc/sys");
    ASSERT_GE(ssh, 0) << work;
    ASSERT_GE(gnupg, 0) << work;
    ASSERT_GE(sysctl, 0) << work;
    ASSERT_GE(settings, 0) << work;
    for (long protectedMount : {ssh, gnupg, settings, sysctl})
      EXPECT_GT(protectedMount, lastWritableBind(args)) << work << " " << tmp;
    EXPECT_EQ(mountIndex(args, "--ro-bind", "/"), 1) << "the read-only root comes first";
    EXPECT_GE(mountIndex(args, "--bind", work), 0) << "the working directory is always writable";
  }
}

TEST(SandboxArgs, TmpDirIsLeftOutWhenItWouldOpenTooMuch) {
  const std::pair<std::optional<std::string>, bool> cases[] = {
      {std::nullopt, false},
      {std::string("/"), false},
      {std::string(""), false},
      {std::string("/home/u/.ssh"), false},
      {std::string("/home/u/.ssh/agent"), false},
      {std::string("/home/u/.gnupg"), false},
      {std::string("/home/u/.sshx"), true},  // a sibling that merely shares the prefix
      {std::string("/home/u/.gnupg2/t"), true},
      {std::string("/home/u"), true},  // above the protected folders: they are mounted over it
      {std::string("/run/user/1000"), true},
  };
  for (const auto& [tmp, kept] : cases) {
    Args args = buildSandboxArgs({.home = "/home/u", .workDir = "/work", .tmpDir = tmp}, "true");
    // Count the writable binds that are not the fixed ones.
    long extra = 0;
    for (size_t i = 0; i + 2 < args.size(); ++i)
      if (args[i] == "--bind" && tmp && args[i + 1] == *tmp && args[i + 2] == *tmp) ++extra;
    // "/home/u" appears once for the home folder anyway.
    long expected = (kept ? 1 : 0) + (tmp && *tmp == "/home/u" ? 1 : 0);
    EXPECT_EQ(extra, expected) << (tmp ? *tmp : "(unset)");
    if (tmp) {
      EXPECT_EQ(tmpDirIsUsable(*tmp, "/home/u"), kept) << *tmp;
    }
  }
}

TEST(SandboxArgs, BusAddressesNameTheirSocketPaths) {
  const std::pair<std::string, Args> cases[] = {
      {"unix:path=/run/user/1000/bus", {"/run/user/1000/bus"}},
      {"unix:path=/tmp/a%20b,guid=1234;unix:abstract=/tmp/dbus-x", {"/tmp/a b"}},
      {"unix:guid=1,path=/x/y;tcp:host=localhost,port=1;unix:path=/z", {"/x/y", "/z"}},
      {"unix:abstract=/tmp/dbus-x", {}},
      {"disabled:", {}},
      {"", {}},
  };
  for (const auto& [address, paths] : cases) EXPECT_EQ(busSocketPaths(address), paths) << address;
}

TEST(SandboxArgs, PathRulesWorkOnWholeComponents) {
  EXPECT_TRUE(isSameOrInside("/a/b", "/a/b"));
  EXPECT_TRUE(isSameOrInside("/a/b/c", "/a/b"));
  EXPECT_FALSE(isSameOrInside("/a/bc", "/a/b"));
  EXPECT_FALSE(isSameOrInside("/a", "/a/b"));
  EXPECT_TRUE(isSameOrInside("/anything", "/"));
  EXPECT_FALSE(isSameOrInside("relative", "/"));

  EXPECT_EQ(protectedFolders("/"), (Args{"/.ssh", "/.gnupg"}));
  EXPECT_EQ(protectedFolders("/root"), (Args{"/root/.ssh", "/root/.gnupg"}));
  EXPECT_FALSE(tmpDirIsUsable("/.ssh/x", "/"));
}

}  // namespace
