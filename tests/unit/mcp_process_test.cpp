// Finding, starting and ending MCP server processes.

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <set>

#include "base/json.h"
#include "mcp/child_process.h"
#include "mcp/mcp_task.h"
#include "mcp/shell_path.h"
#include "mcp_test_support.h"

namespace fs = std::filesystem;

namespace {

std::string readAll(int fd) {
  std::string out;
  char buf[4096];
  ssize_t n;
  while ((n = read(fd, buf, sizeof buf)) > 0 || (n < 0 && errno == EINTR))
    if (n > 0) out.append(buf, static_cast<size_t>(n));
  close(fd);
  return out;
}

// Alive and not a zombie (a killed orphan may linger briefly until init reaps it).
bool processExists(pid_t pid) {
  std::string stat = readText("/proc/" + std::to_string(pid) + "/stat");
  auto close = stat.rfind(')');
  return close != std::string::npos && close + 2 < stat.size() && stat[close + 2] != 'Z';
}

// Whether any process, a zombie included, still has this one as its parent.
bool anyChildLeft() {
  std::error_code ec;
  for (const auto& entry : fs::directory_iterator("/proc", ec)) {
    std::string stat = readText(entry.path() / "stat");
    auto close = stat.rfind(')');
    int ppid = 0;
    if (close != std::string::npos && std::sscanf(stat.c_str() + close + 1, " %*c %d", &ppid) == 1 && ppid == getpid())
      return true;
  }
  return false;
}

std::vector<std::string> lines(const std::string& text) {
  auto parts = ondrelSplit(text, '\n');
  if (!parts.empty() && parts.back().empty()) parts.pop_back();
  return parts;
}

}  // namespace

// ---- where commands are looked for ----

TEST(McpSearchDirs, ShellPathThenProcessPathThenToolFoldersWithoutDuplicates) {
  TempDir home;
  fs::create_directories(home.path() / ".nvm/versions/node/v20.1.0");
  fs::create_directories(home.path() / ".nvm/versions/node/v18.2.0");
  std::string h = home.path().string();

  auto dirs = ondrelSearchDirs(std::string("/s1:/shared::/s2"), "/shared:/p1:/usr/local/bin:", h);
  std::vector<std::string> expected = {
      "/s1", "/shared", "/s2", "/p1", "/usr/local/bin", "/home/linuxbrew/.linuxbrew/bin",
      "/home/linuxbrew/.linuxbrew/sbin", "/usr/local/sbin", "/snap/bin", h + "/.local/bin", h + "/.bun/bin",
      h + "/.cargo/bin", h + "/.volta/bin", h + "/.pyenv/shims"};
  ASSERT_EQ(dirs.size(), expected.size() + 2);
  EXPECT_EQ(std::vector<std::string>(dirs.begin(), dirs.begin() + expected.size()), expected);
  std::set<std::string> nvm(dirs.end() - 2, dirs.end());
  EXPECT_EQ(nvm, (std::set<std::string>{h + "/.nvm/versions/node/v20.1.0/bin", h + "/.nvm/versions/node/v18.2.0/bin"}));

  TempDir plain;
  auto bare = ondrelSearchDirs(std::nullopt, nullptr, plain.path().string());
  EXPECT_EQ(bare.front(), "/home/linuxbrew/.linuxbrew/bin") << "no shell and no process PATH";
  EXPECT_EQ(bare.back(), plain.path().string() + "/.pyenv/shims") << "no nvm folder, no nvm entries";
}

TEST(McpSearchDirs, LoginShellFallsBackToPasswdThenSh) {
  EXPECT_EQ(ondrelLoginShell("/usr/bin/zsh", "/bin/bash"), "/usr/bin/zsh");
  EXPECT_EQ(ondrelLoginShell("zsh", "/bin/bash"), "/bin/bash") << "SHELL without a leading slash";
  EXPECT_EQ(ondrelLoginShell("", "/usr/bin/fish"), "/usr/bin/fish");
  EXPECT_EQ(ondrelLoginShell(nullptr, "bash"), "/bin/sh");
  EXPECT_EQ(ondrelLoginShell(nullptr, nullptr), "/bin/sh");
}

TEST(McpSearchDirs, ShellOutputYieldsTheLastNonBlankLineWhenItHoldsASlash) {
  EXPECT_EQ(ondrelShellPathFromOutput("Welcome!\nmotd\n/usr/bin:/bin"), "/usr/bin:/bin");
  EXPECT_EQ(ondrelShellPathFromOutput("\n  /a/bin:/b  \r\n \n\t\n"), "/a/bin:/b");
  EXPECT_EQ(ondrelShellPathFromOutput("\n/usr/bin:/bin\nbye"), std::nullopt) << "text after PATH without a slash";
  EXPECT_EQ(ondrelShellPathFromOutput("\n/usr/bin\nsaved to /tmp/x"), "saved to /tmp/x")
      << "text after PATH with a slash is taken as it stands";
  EXPECT_EQ(ondrelShellPathFromOutput(""), std::nullopt);
  EXPECT_EQ(ondrelShellPathFromOutput("\n \n"), std::nullopt);
  EXPECT_EQ(ondrelShellPathFromOutput("\n/bin:\xff\xfe"), std::nullopt) << "not UTF-8";
}

TEST(McpSearchDirs, ProbeRunsALoginInteractiveShellAndReadsItsPath) {
  TempDir dir;
  // Checks the exact arguments, prints start-up noise, then runs the command.
  std::string shell = writeExecutable(dir.path() / "fakesh", R"(#!/bin/sh
[ "$1" = -l ] && [ "$2" = -i ] && [ "$3" = -c ] && [ $# -eq 4 ] || { echo "bad args: $*"; exit 3; }
echo "Last login: yesterday"
echo "rc: loaded /etc/profile"
PATH=/from/shell/bin:/other/bin
eval "$4"
)");
  EXPECT_EQ(ondrelProbeShellPath(shell), "/from/shell/bin:/other/bin");
}

TEST(McpSearchDirs, HangingShellIsGivenUpOnAndEnded) {
  TempDir dir;
  std::string shell = writeExecutable(dir.path() / "hangsh", "#!/bin/sh\ntrap '' TERM\necho started\nsleep 30\n");
  auto before = std::chrono::steady_clock::now();
  EXPECT_EQ(ondrelProbeShellPath(shell, {0.3, 0.5}), std::nullopt);
  double waited = std::chrono::duration<double>(std::chrono::steady_clock::now() - before).count();
  EXPECT_GE(waited, 0.75);
  EXPECT_LT(waited, 2.0) << "both limits bound the wait";
  // It ignores SIGTERM; SIGKILL follows 2 s after the terminate.
  EXPECT_TRUE(pumpUntil([] { return !anyChildLeft(); }, 5)) << "the shell and its sleep are ended and reaped";
}

TEST(McpSearchDirs, ResolutionTakesTheFirstExecutableFile) {
  TempDir dir;
  auto d1 = dir.path() / "d1", d2 = dir.path() / "d2";
  writeText(d1 / "tool", "not executable");
  writeExecutable(d2 / "tool", "#!/bin/sh\n");
  writeExecutable(d2 / "sub/nested", "#!/bin/sh\n");
  fs::create_directories(d1 / "folder");  // executable bit, but a directory
  writeExecutable(d2 / "folder", "#!/bin/sh\n");
  std::vector<std::string> dirs = {d1.string(), d2.string()};

  EXPECT_EQ(ondrelResolveIn("tool", dirs), (d2 / "tool").string());
  EXPECT_EQ(ondrelResolveIn("folder", dirs), (d2 / "folder").string());
  EXPECT_EQ(ondrelResolveIn("sub/nested", dirs), (d2 / "sub/nested").string()) << "relative path with a slash";
  EXPECT_EQ(ondrelResolveIn("missing", dirs), std::nullopt);
  EXPECT_EQ(ondrelResolveIn("", dirs), std::nullopt);
  EXPECT_EQ(ondrelResolveIn((d2 / "tool").string(), {}), (d2 / "tool").string()) << "absolute: used as is";
  EXPECT_EQ(ondrelResolveIn("/nonexistent/tool", dirs), std::nullopt) << "absolute: never searched";
  EXPECT_EQ(ondrelResolveIn((d1 / "tool").string(), dirs), std::nullopt) << "absolute but not executable";
}

// ---- the child process ----

TEST(McpChildProcess, ChildGetsOnlyItsPipesAndDefaultSignals) {
  int leaked = open("/dev/null", O_RDONLY);  // no close-on-exec on purpose
  ASSERT_GE(leaked, 0);
  auto savedPipe = std::signal(SIGPIPE, SIG_IGN);

  SpawnRequest request;
  request.executable = "/bin/sh";
  request.args = {"-c", "ls /proc/self/fd; grep SigIgn /proc/self/status; pwd"};
  request.environment = {"PATH=/usr/bin:/bin"};
  request.workingDirectory = "/tmp";
  std::string error;
  auto child = ChildProcess::spawn(request, nullptr, &error);
  ASSERT_TRUE(child) << error;
  std::string out = readAll(child->takeStdout());
  std::signal(SIGPIPE, savedPipe);
  close(leaked);
  ASSERT_TRUE(child->waitUntilReaped(5));

  auto got = lines(out);
  ASSERT_EQ(got.size(), 6u) << out;
  // ls sees 0-2 and the descriptor of the directory it lists, nothing else.
  EXPECT_EQ(std::vector<std::string>(got.begin(), got.begin() + 4), (std::vector<std::string>{"0", "1", "2", "3"}));
  EXPECT_EQ(got[4], "SigIgn:\t0000000000000000") << "the app's ignored SIGPIPE must not reach servers";
  EXPECT_EQ(got[5], "/tmp");
  EXPECT_EQ(getpgid(child->pid()), -1) << "reaped";
}

TEST(McpChildProcess, LaunchFailuresComeBackAsText) {
  TempDir dir;
  std::string garbage = writeExecutable(dir.path() / "garbage", "\x01\x02 not a program");
  SpawnRequest request;
  request.executable = garbage;
  std::string error;
  EXPECT_FALSE(ChildProcess::spawn(request, nullptr, &error));
  EXPECT_EQ(error, garbage + ": Exec format error");

  request.executable = "/bin/true";
  request.workingDirectory = (dir.path() / "no-such-folder").string();
  EXPECT_FALSE(ChildProcess::spawn(request, nullptr, &error));
  EXPECT_EQ(error, "/bin/true: No such file or directory");
  EXPECT_TRUE(pumpUntil([] { return !anyChildLeft(); }, 5)) << "a failed launch leaves no zombie";
}

// ---- McpTask start and stop ----

class McpTaskProcess : public HomeFixture {};

TEST_F(McpTaskProcess, CommandNotFoundIsLoggedAndLeavesNoChild) {
  auto bare = McpTask::create(context_, "ghost", "ondrel-no-such-server-command");
  bare->start();
  EXPECT_TRUE(logged("[MCP ghost] command not found: ondrel-no-such-server-command"));
  EXPECT_EQ(bare->launchFailure(), "command not found: ondrel-no-such-server-command");
  EXPECT_FALSE(bare->child());

  auto absolute = McpTask::create(context_, "abs", "/nonexistent/server");
  absolute->start();
  EXPECT_TRUE(logged("[MCP abs] command not found: /nonexistent/server"));
  EXPECT_FALSE(absolute->isRunning());
}

TEST_F(McpTaskProcess, LaunchFailureIsLogged) {
  std::string garbage = writeExecutable(home() / "garbage", "\x01\x02 not a program");
  auto task = McpTask::create(context_, "bad", garbage);
  task->start();
  EXPECT_TRUE(logged("[MCP bad] launch failed: " + garbage + ": Exec format error"));
  EXPECT_EQ(task->launchFailure(), "launch failed: " + garbage + ": Exec format error");
  EXPECT_FALSE(task->child());
}

TEST_F(McpTaskProcess, ChildRunsInHomeWithArgsAndTheSearchListFirstInPath) {
  auto out = home() / "seen.txt";
  std::string script = writeExecutable(home() / "server.sh", R"(#!/bin/sh
{ pwd; printf '%s\n' "$@"; echo "PATH=$PATH"; echo "EXTRA=$EXTRA"; } > "$OUT.tmp"
mv "$OUT.tmp" "$OUT"
while read -r line; do :; done
)");
  auto task = McpTask::create(context_, "env", script, {"a b", "c"}, {{"OUT", out.string()}, {"EXTRA", "x=y"}});
  task->start();
  EXPECT_TRUE(logged("[MCP env] started " + script + " a b c"));
  ASSERT_TRUE(pumpUntil([&] { return fs::exists(out); }));
  auto got = lines(readText(out));
  ASSERT_EQ(got.size(), 5u);
  EXPECT_EQ(got[0], home().string());
  EXPECT_EQ(got[1], "a b");
  EXPECT_EQ(got[2], "c");
  std::string searchList;
  for (const auto& d : context_->searchDirs()) searchList += (searchList.empty() ? "" : ":") + d;
  const char* inherited = std::getenv("PATH");
  EXPECT_EQ(got[3], "PATH=" + searchList + (inherited && *inherited ? std::string(":") + inherited : ""));
  EXPECT_EQ(got[4], "EXTRA=x=y");
  task->stop();
}

TEST_F(McpTaskProcess, ConfiguredPathIsUsedUnchanged) {
  auto out = home() / "seen.txt";
  std::string script = writeExecutable(home() / "server.sh", R"(#!/bin/sh
echo "PATH=$PATH" > "$OUT.tmp"
read -r line
)");
  auto task = McpTask::create(context_, "env", script, {}, {{"OUT", out.string()}, {"PATH", "/only/here"}});
  task->start();
  EXPECT_TRUE(logged("[MCP env] started " + script + " ")) << "no arguments: the trailing blank stays";
  ASSERT_TRUE(pumpUntil([&] { return fs::exists(out.string() + ".tmp") && !readText(out.string() + ".tmp").empty(); }));
  EXPECT_EQ(readText(out.string() + ".tmp"), "PATH=/only/here\n");
  task->stop();
}

TEST_F(McpTaskProcess, StopEndsAGroupThatIgnoresSigtermAndReapsIt) {
  auto out = home() / "pid.txt";
  // A tree that shrugs off SIGTERM: only the SIGKILL to the group ends it.
  std::string script = writeExecutable(home() / "stubborn.sh", R"(#!/bin/sh
trap '' TERM
sleep 300 &
echo $! > "$OUT.tmp" && mv "$OUT.tmp" "$OUT"
while :; do sleep 1; done
)");
  auto task = McpTask::create(context_, "stubborn", script, {}, {{"OUT", out.string()}});
  task->start();
  auto child = task->child();
  ASSERT_TRUE(child);
  ASSERT_TRUE(pumpUntil([&] { return fs::exists(out); }));
  pid_t grandchild = std::stoi(readText(out));
  ASSERT_TRUE(processExists(grandchild));
  EXPECT_EQ(getsid(child->pid()), child->pid()) << "a session of its own, no controlling terminal";
  EXPECT_EQ(getpgid(grandchild), child->pid()) << "its children share its group";

  LogCapture::instance().clear();
  auto before = std::chrono::steady_clock::now();
  task->stop();
  task->stop();  // harmless
  EXPECT_FALSE(task->child());
  ASSERT_TRUE(child->waitUntilReaped(5));
  double took = std::chrono::duration<double>(std::chrono::steady_clock::now() - before).count();
  EXPECT_GE(took, 1.9) << "SIGKILL only after the 2 s grace";
  EXPECT_TRUE(pumpUntil([&] { return !processExists(grandchild); }, 1)) << "the whole group ended";
  EXPECT_FALSE(processExists(child->pid()));
  pumpFor(0.2);
  for (const auto& line : LogCapture::instance().lines())
    EXPECT_EQ(line.find("exited"), std::string::npos) << "stop is not an unexpected exit: " << line;
}

TEST_F(McpTaskProcess, WellBehavedServerEndsAtEndOfInput) {
  auto task = McpTask::create(context_, "fake", fakeServer());
  task->start();
  auto child = task->child();
  ASSERT_TRUE(child);
  task->stop();
  auto before = std::chrono::steady_clock::now();
  ASSERT_TRUE(child->waitUntilReaped(5));
  EXPECT_LT(std::chrono::duration<double>(std::chrono::steady_clock::now() - before).count(), 1.5);
  EXPECT_TRUE(WIFEXITED(child->waitStatus()) || WIFSIGNALED(child->waitStatus()));
}

TEST_F(McpTaskProcess, StderrIsDrainedWhileRunningAndLoggedWhole) {
  auto task = McpTask::create(context_, "noisy", fakeServer());
  task->start();
  // 300 kB is far more than a pipe holds: the answer only comes if standard
  // error is read while the server runs.
  std::string noise(300000, 'x');
  std::optional<Json> response;
  task->sendRequest("tools/call",
                    Json{{"name", "t"}, {"arguments", {{"script", {{{"stderr", noise + "\n"}}, {{"respond", {{"ok", 1}}}}}}}}},
                    10, [&](const Json& r) { response = r; });
  ASSERT_TRUE(pumpUntil([&] { return response.has_value(); }));
  EXPECT_EQ((*response)["result"], (Json{{"ok", 1}}));

  auto child = task->child();
  task->stop();
  ASSERT_TRUE(child->waitUntilFinished(5));
  EXPECT_TRUE(logged("[MCP noisy] stderr: " + noise + "\n")) << "one line with the whole text, at exit";
  EXPECT_EQ(task->standardError(), noise + "\n");
  EXPECT_TRUE(task->launchFailure().empty());
}
