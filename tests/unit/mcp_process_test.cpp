// Finding, starting and ending MCP server processes.

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <set>

#include "mcp/child_process.h"
#include "mcp/shell_path.h"
#include "mcp_test_support.h"

namespace fs = std::filesystem;

namespace {

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

}  // namespace

TEST(McpSearchDirs, ShellPathThenProcessPathThenToolFoldersWithoutDuplicates) {
  TempDir home;
  const std::string h = home.path().string();
  fs::create_directories(home.path() / ".nvm/versions/node/v20.1.0");
  fs::create_directories(home.path() / ".nvm/versions/node/v18.2.0");
  auto dirs = ondrelSearchDirs(std::string("/s1:/shared::/s2"), "/shared:/p1:/usr/local/bin:", h);
  EXPECT_EQ(std::vector(dirs.begin(), dirs.begin() + 5),
            (std::vector<std::string>{"/s1", "/shared", "/s2", "/p1", "/usr/local/bin"}));
  EXPECT_EQ(std::set(dirs.begin(), dirs.end()).size(), dirs.size()) << "no duplicates";
  EXPECT_EQ(std::count(dirs.begin(), dirs.end(), ""), 0);
  for (const std::string& tools : {h + "/.local/bin", h + "/.cargo/bin", std::string("/snap/bin")})
    EXPECT_EQ(std::count(dirs.begin(), dirs.end(), tools), 1) << tools;
  EXPECT_EQ(std::set(dirs.end() - 2, dirs.end()),
            (std::set<std::string>{h + "/.nvm/versions/node/v20.1.0/bin", h + "/.nvm/versions/node/v18.2.0/bin"}))
      << "every node version's bin folder, last";

  TempDir plain;
  auto bare = ondrelSearchDirs(std::nullopt, nullptr, plain.path().string());
  bare.insert(bare.begin(), {"/s1", "/p1"});
  EXPECT_EQ(ondrelSearchDirs(std::string("/s1"), "/p1", plain.path().string()), bare) << "without nvm folders";
}

TEST(McpSearchDirs, LoginShellFallsBackToPasswdThenSh) {
  const struct {
    const char *env, *passwd, *shell;
  } cases[] = {{"/usr/bin/zsh", "/bin/bash", "/usr/bin/zsh"},
               {"zsh", "/bin/bash", "/bin/bash"},  // SHELL without a leading slash
               {nullptr, "bash", "/bin/sh"},
               {nullptr, nullptr, "/bin/sh"}};
  for (const auto& c : cases) EXPECT_EQ(ondrelLoginShell(c.env, c.passwd), c.shell) << (c.env ? c.env : "(unset)");
}

TEST(McpSearchDirs, ShellOutputYieldsTheLastNonBlankLineWhenItHoldsASlash) {
  const std::pair<const char*, std::optional<std::string>> cases[] = {
      {"Welcome!\nmotd\n/usr/bin:/bin", "/usr/bin:/bin"},
      {"\n  /a/bin:/b  \r\n \n\t\n", "/a/bin:/b"},
      {"\n/usr/bin:/bin\nbye", std::nullopt},                  // text after PATH without a slash
      {"\n/usr/bin\nsaved to /tmp/x", "saved to /tmp/x"},      // ... with one is taken as it stands
      {"\n \n", std::nullopt},
      {"\n/bin:\xff\xfe", std::nullopt},  // not UTF-8
  };
  for (const auto& [output, path] : cases) EXPECT_EQ(ondrelShellPathFromOutput(output), path) << output;
}

TEST(McpSearchDirs, ProbeAsksALoginInteractiveShellAndGivesUpOnOneThatHangs) {
  TempDir dir;
  std::string shell = writeExecutable(dir.path() / "fakesh", R"(#!/bin/sh
[ "$1" = -l ] && [ "$2" = -i ] && [ "$3" = -c ] && [ $# -eq 4 ] || { echo "bad args: $*"; exit 3; }
echo "Last login: yesterday"
echo "rc: loaded /etc/profile"
PATH=/from/shell/bin:/other/bin
eval "$4"
)");
  EXPECT_EQ(ondrelProbeShellPath(shell), "/from/shell/bin:/other/bin");

  // It ignores SIGTERM and would answer only after 30 s: a probe that waited gets the path.
  std::string hanging = writeExecutable(dir.path() / "hangsh", "#!/bin/sh\ntrap '' TERM\nsleep 30\necho /late/bin\n");
  EXPECT_EQ(ondrelProbeShellPath(hanging, {0.3, 0.5}), std::nullopt);
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
  const std::vector<std::string> dirs = {d1.string(), d2.string()};
  const std::pair<std::string, std::optional<fs::path>> cases[] = {
      {"tool", d2 / "tool"},
      {"folder", d2 / "folder"},
      {"sub/nested", d2 / "sub/nested"},  // relative path with a slash
      {"missing", std::nullopt},
      {(d2 / "tool").string(), d2 / "tool"},  // absolute: used as is
      {"/nonexistent/tool", std::nullopt},    // absolute: never searched
      {(d1 / "tool").string(), std::nullopt},
  };
  for (const auto& [command, found] : cases)
    EXPECT_EQ(ondrelResolveIn(command, dirs), found ? std::optional(found->string()) : std::nullopt) << command;
}

TEST(McpChildProcess, ChildGetsOnlyItsPipesAndDefaultSignals) {
  int leaked = open("/dev/null", O_RDONLY);  // no close-on-exec on purpose
  ASSERT_GE(leaked, 0);
  auto savedPipe = std::signal(SIGPIPE, SIG_IGN);
  SpawnRequest request{"/bin/sh", {"-c", "ls /proc/self/fd; grep SigIgn /proc/self/status; pwd"},
                       {"PATH=/usr/bin:/bin"}, "/tmp"};
  std::string error;
  auto child = ChildProcess::spawn(request, nullptr, &error);
  std::signal(SIGPIPE, savedPipe);
  close(leaked);
  ASSERT_TRUE(child) << error;
  std::string out;
  char buf[4096];
  int fd = child->takeStdout();
  for (ssize_t n; (n = read(fd, buf, sizeof buf)) > 0;) out.append(buf, static_cast<size_t>(n));
  close(fd);
  ASSERT_TRUE(child->waitUntilReaped(5));
  // ls sees 0-2 and the descriptor of the directory it lists, nothing else.
  EXPECT_EQ(out, "0\n1\n2\n3\nSigIgn:\t0000000000000000\n/tmp\n")
      << "the app's ignored SIGPIPE must not reach servers";
  EXPECT_EQ(getpgid(child->pid()), -1) << "reaped";

  request = {"/bin/true", {}, {}, "/no-such-folder"};
  EXPECT_FALSE(ChildProcess::spawn(request, nullptr, &error));
  EXPECT_EQ(error, "/bin/true: No such file or directory");
  EXPECT_TRUE(pumpUntil([] { return !anyChildLeft(); }, 5)) << "a failed launch leaves no zombie";
}

using McpTaskProcess = HomeFixture;

TEST_F(McpTaskProcess, ChildRunsInHomeWithArgsAndPathInAGroupOfItsOwnThatStopEnds) {
  auto out = home() / "seen.txt";
  // It notes SIGTERM and goes on, and has a child of its own.
  std::string script = writeExecutable(home() / "server.sh", R"(#!/bin/sh
trap 'echo TERM > "$OUT.$$"' TERM
sleep 300 &
{ echo $!; pwd; printf '%s\n' "$@"; echo "PATH=$PATH"; echo "EXTRA=$EXTRA"; } > "$OUT.tmp"
/bin/mv "$OUT.tmp" "$OUT"
while :; do sleep 1; done
)");
  std::string searchList;
  for (const auto& d : context_->searchDirs()) searchList += (searchList.empty() ? "" : ":") + d;
  const char* inherited = std::getenv("PATH");
  const std::string path = searchList + (inherited && *inherited ? std::string(":") + inherited : "");
  const struct {
    std::vector<std::string> args;
    std::map<std::string, std::string> env;
    std::string seen;
  } cases[] = {
      {{}, {{"PATH", "/only/here:/bin"}}, home().string() + "\n\nPATH=/only/here:/bin\nEXTRA=\n"},
      {{"a b", "c"}, {{"EXTRA", "x=y"}}, home().string() + "\na b\nc\nPATH=" + path + "\nEXTRA=x=y\n"},
  };
  std::shared_ptr<McpTask> task;
  for (auto c : cases) {
    if (task) task->stop();
    fs::remove(out);
    c.env["OUT"] = out.string();
    task = McpTask::create(context_, "env", script, c.args, c.env);
    task->start();
    ASSERT_TRUE(pumpUntil([&] { return fs::exists(out); }));
    const std::string seen = readText(out);
    EXPECT_EQ(seen.substr(seen.find('\n') + 1), c.seen) << "after the child's pid";
  }

  auto child = task->child();
  pid_t grandchild = std::stoi(readText(out));
  ASSERT_TRUE(processExists(grandchild));
  EXPECT_EQ(getsid(child->pid()), child->pid()) << "a session of its own, no controlling terminal";
  EXPECT_EQ(getpgid(grandchild), child->pid()) << "its children share its group";
  task->stop();
  task->stop();  // harmless
  EXPECT_FALSE(task->child());
  ASSERT_TRUE(child->waitUntilReaped(10));
  EXPECT_EQ(readText(out.string() + "." + std::to_string(child->pid())), "TERM\n") << "told to stop first";
  EXPECT_TRUE(WIFSIGNALED(child->waitStatus()) && WTERMSIG(child->waitStatus()) == SIGKILL);
  EXPECT_TRUE(pumpUntil([&] { return !processExists(grandchild); }, 1)) << "the whole group ended";
}
