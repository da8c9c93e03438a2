#pragma once

#include <optional>
#include <string>
#include <vector>

#include "bridge/desktop_doors.h"

// The confinement for "exec": bubblewrap with the whole file system read-only
// and only the writable places bound back. Everything here is pure so the
// argument list can be checked without running anything.

// Absolute on purpose: the home folder is writable from inside the sandbox,
// and a PATH that lists ~/.local/bin would otherwise let a command plant its
// own "bwrap" that runs the next command unconfined.
inline constexpr const char* kBubblewrapPath = "/usr/bin/bwrap";
inline constexpr const char* kSandboxShell = "/bin/bash";

// Paths must already be resolved (no symbolic links, absolute) except where
// resolution failed; the caller decides what to pass.
struct SandboxPaths {
  std::string home;
  std::string workDir;
  std::optional<std::string> tmpDir;  // the resolved TMPDIR, if any
  std::vector<std::string> readOnly;  // more places bound read-only, after the key folders
  DesktopDoors doors;                 // covered, whatever is writable around them
  bool network = true;                // false: a network namespace of its own, loopback only
};

// "parent/name" without doubling the slash when parent is "/".
std::string joinPath(const std::string& parent, const std::string& name);

// True when path is folder itself or lies below it (by whole components).
bool isSameOrInside(const std::string& path, const std::string& folder);

// The key folders of home, which stay read-only whatever else is writable.
std::vector<std::string> protectedFolders(const std::string& home);

// A TMPDIR of "/" would make everything writable, and one inside a
// protected folder would make that folder writable; both are left out.
bool tmpDirIsUsable(const std::string& tmpDir, const std::string& home);

// The whole command line, program first. Later mounts cover earlier ones, so
// the protected folders and /proc/sys come last and stay read-only even when
// the working directory or TMPDIR is inside them. statusFd >= 0 asks
// bubblewrap to report on that descriptor whether the command was started.
std::vector<std::string> buildSandboxArgs(const SandboxPaths& paths, const std::string& command,
                                          int statusFd = -1);
