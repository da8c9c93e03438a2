#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "base/json.h"
#include "bridge/protected_paths.h"
#include "bridge/sandbox_args.h"

// The "exec" native action: one shell command in a working directory, run
// confined, answered with its exit status and both outputs.

// How one child process ended, or why it never started.
struct ChildRun {
  bool launched = false;
  std::string error;   // the launch failure's description when !launched
  int exitStatus = 0;  // the exit code, or the signal number
  std::string out;
  std::string err;
  bool outCut = false;  // more was written than kExecOutputLimit
  bool errCut = false;
};

// What each output stream of a command keeps; the rest is read and dropped.
inline constexpr size_t kExecOutputLimit = size_t(16) << 20;

// Answer to the page; always called on the main thread, exactly once.
using ExecReply = std::function<void(bool ok, const Json& value)>;

inline constexpr const char* kExecUsage = "exec expects [dir, command]";

// "~" and "~/..." become the given home; "~name/..." becomes that user's
// home when the user exists. Anything else is returned as it is.
std::string expandTilde(const std::string& path, const std::string& home);

// Tilde expansion, then every symbolic link resolved; when the folder cannot
// be resolved (it does not exist, say) the expanded text is returned as is.
std::string resolveWorkDir(const std::string& dir, const std::string& home);

// Makes sure the protected folders of home can be mounted read-only: a
// missing one is created with mode 0700; a symbolic link, or a file in them
// that has a hard link elsewhere, is refused, since writes through either
// would bypass the read-only mount. The targets outside of links inside
// them are added to binds; a link to nothing is refused. Returns the reason
// for a refusal.
std::optional<std::string> prepareProtectedFolders(const std::string& home, std::vector<std::string>& binds);

// Makes the plan's missing folders (0700) and lists every path of the plan
// to bind read-only into binds. A symbolic link, which a command could
// replace, or a file with a second name elsewhere is refused: the reason
// comes back.
std::optional<std::string> prepareReadOnlyPaths(const ReadOnlyPlan& plan, std::vector<std::string>& binds);

// The plan for this user and this run of the app: its AppDir, the
// environment's configuration folder and the settings' own entries.
ReadOnlyPlan currentReadOnlyPlan(const std::string& home, const std::optional<Json>& config);

// $XDG_RUNTIME_DIR, or /run/user/<uid> when that exists; "" otherwise.
std::string runtimeDir();

// "sandboxNetwork": only an explicit false takes the network away.
bool networkAllowed(const std::optional<Json>& config);

// {"exit", "stdout", "stderr"}; output that is not UTF-8 becomes "". A
// stream that was cut is named in "truncated" (["stdout"], say).
Json execResultValue(ChildRun&& run);

// Starts argv (program first, absolute path) in cwd with /dev/null as
// standard input, no descriptor beyond 0-2, and both outputs piped and read to
// their end together; then reaps the child. Blocks the calling thread.
ChildRun runChild(const std::vector<std::string>& argv, const std::string& cwd);

// runChild for the confined shell: the command counts as launched only when
// bubblewrap reports that it started it, so a refused namespace or a failed
// mount is a launch failure, never a command's exit status.
ChildRun runSandboxed(const SandboxPaths& paths, const std::string& command);

// The whole action. Bad arguments are answered at once; otherwise the work
// runs on a thread of its own (which lives until the child exits) and the
// answer comes later through runOnMain.
void execCommand(const Json& args, ExecReply reply);

class Bridge;
// Adds "exec" to the bridge's action table. Answers of commands still
// running when the bridge goes away are dropped.
void registerExecAction(Bridge& bridge);
