#include "bridge/exec_command.h"
#include "base/text.h"

#include <fcntl.h>
#include <signal.h>
#include <glib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "bridge_fakes.h"
#include "log_capture.h"
#include "main_loop.h"
#include "test_files.h"

namespace fs = std::filesystem;

namespace {

struct Answer {
  bool ok = false;
  Json value;
  bool onMainThread = false;
};

// Runs the action and spins the default main context until it answers, the
// way the application's loop would.
Answer execAndWait(const Json& args) {
  const auto mainThread = std::this_thread::get_id();
  std::optional<Answer> answer;
  GMainLoop* loop = g_main_loop_new(nullptr, FALSE);
  int replies = 0;
  execCommand(args, [&](bool ok, const Json& value) {
    ++replies;
    answer = Answer{ok, value, std::this_thread::get_id() == mainThread};
    g_main_loop_quit(loop);
  });
  if (!answer) {
    guint guard = g_timeout_add_seconds(60, [](gpointer l) {
      g_main_loop_quit(static_cast<GMainLoop*>(l));
      return G_SOURCE_REMOVE;
    }, loop);
    g_main_loop_run(loop);
    if (answer) g_source_remove(guard);
  }
  g_main_loop_unref(loop);
  EXPECT_EQ(replies, 1);
  if (!answer) ADD_FAILURE() << "no answer within 60 s";
  return answer.value_or(Answer{});
}

bool haveBubblewrap() { return access(kBubblewrapPath, X_OK) == 0; }

// A fresh HOME (and no TMPDIR unless a test sets one) for each test.
class ExecTest : public ::testing::Test {
 protected:
  void SetUp() override {
    save("HOME", savedHome_);
    save("TMPDIR", savedTmp_);
    setenv("HOME", home().c_str(), 1);
    unsetenv("TMPDIR");
  }
  void TearDown() override {
    restore("HOME", savedHome_);
    restore("TMPDIR", savedTmp_);
  }
  static void save(const char* name, std::optional<std::string>& slot) {
    if (const char* v = std::getenv(name)) slot = v;
  }
  static void restore(const char* name, const std::optional<std::string>& slot) {
    if (slot) setenv(name, slot->c_str(), 1);
    else unsetenv(name);
  }
  std::string home() const { return dir_.path().string(); }
  Answer run(const std::string& dir, const std::string& command) { return execAndWait(Json::array({dir, command})); }

  TempDir dir_;
  std::optional<std::string> savedHome_, savedTmp_;
  std::vector<std::string> binds_;
};

TEST(ExecArguments, BadArgumentsAreRefusedAtOnce) {
  const Json cases[] = {
      Json::array(),
      Json::array({"/tmp"}),
      Json::array({"/tmp", 42}),
      Json::array({"/tmp", nullptr}),
      Json::array({42, "true"}),
      Json::array({Json::array({"/tmp"}), "true"}),
      Json::object({{"dir", "/tmp"}}),
  };
  for (const auto& args : cases) {
    std::optional<std::pair<bool, Json>> reply;
    execCommand(args, [&](bool ok, const Json& value) { reply = {ok, value}; });
    ASSERT_TRUE(reply) << "answered before returning: " << args.dump();
    EXPECT_FALSE(reply->first);
    EXPECT_EQ(reply->second, "exec expects [dir, command]") << args.dump();
  }
}

TEST(ExecPaths, TildeIsExpandedOnlyAtTheStart) {
  EXPECT_EQ(expandTilde("~", "/h"), "/h");
  EXPECT_EQ(expandTilde("~/project/x", "/h"), "/h/project/x");
  EXPECT_EQ(expandTilde("/a/~/b", "/h"), "/a/~/b");
  EXPECT_EQ(expandTilde("a~", "/h"), "a~");
  EXPECT_EQ(expandTilde("", "/h"), "");
  EXPECT_EQ(expandTilde("~root/x", "/h"), "/root/x");
  EXPECT_EQ(expandTilde("~no-such-user-here/x", "/h"), "~no-such-user-here/x");
}

TEST(ExecPaths, WorkingDirectoryResolvesThroughLinksOrStaysAsWritten) {
  TempDir dir;
  fs::path real = dir.path() / "real";
  fs::create_directories(real / "inner");
  fs::create_directory_symlink(real, dir.path() / "project");
  const std::string home = dir.path().string();
  EXPECT_EQ(resolveWorkDir("~/project", home), fs::canonical(real).string());
  EXPECT_EQ(resolveWorkDir("~/project/inner/..", home), fs::canonical(real).string());
  EXPECT_EQ(resolveWorkDir("~/missing/x", home), home + "/missing/x");
  EXPECT_EQ(resolveWorkDir("/no/such/dir", home), "/no/such/dir");
}

TEST(ExecOutput, OutputThatIsNotUtf8BecomesEmpty) {
  EXPECT_TRUE(isValidUtf8(""));
  EXPECT_TRUE(isValidUtf8("plain\n"));
  EXPECT_TRUE(isValidUtf8("gr\xC3\xBC\xC3\x9F \xE2\x86\x92 \xF0\x9F\x98\x80"));
  EXPECT_TRUE(isValidUtf8(std::string("a\0b", 3)));
  EXPECT_FALSE(isValidUtf8(std::string("a\0\xFF", 3))) << "checked past a NUL";
  EXPECT_TRUE(isValidUtf8("\xF4\x8F\xBF\xBF"));   // U+10FFFF
  EXPECT_FALSE(isValidUtf8("\xFF"));
  EXPECT_FALSE(isValidUtf8("\xC3"));              // cut short
  EXPECT_FALSE(isValidUtf8("\xC0\xAF"));          // overlong "/"
  EXPECT_FALSE(isValidUtf8("\xE0\x80\xAF"));      // overlong, three bytes
  EXPECT_FALSE(isValidUtf8("\xED\xA0\x80"));      // surrogate
  EXPECT_FALSE(isValidUtf8("\xF4\x90\x80\x80"));  // past U+10FFFF
  EXPECT_FALSE(isValidUtf8("ok\x80"));

  ChildRun run;
  run.launched = true;
  run.exitStatus = 3;
  run.out = "caf\xE9";  // Latin-1
  run.err = "fine";
  EXPECT_EQ(execResultValue(ChildRun(run)), Json::parse(R"({"exit": 3, "stdout": "", "stderr": "fine"})"));
  EXPECT_EQ(execResultValue(ChildRun(run)).begin().key(), "exit");
}

TEST(ExecChild, BothPipesAreDrainedTogether) {
  // 1 MiB on stderr before anything on stdout: a reader that finished
  // stdout first would leave the child blocked on a full stderr pipe.
  ChildRun run = runChild({"/bin/sh", "-c", "head -c 1048576 /dev/zero | tr '\\0' e >&2; "
                                            "head -c 1048576 /dev/zero | tr '\\0' o; exit 5"},
                          "/");
  ASSERT_TRUE(run.launched) << run.error;
  EXPECT_EQ(run.exitStatus, 5);
  EXPECT_EQ(run.out, std::string(1048576, 'o'));
  EXPECT_EQ(run.err, std::string(1048576, 'e'));
}

TEST(ExecChild, AnswerWaitsForEveryWriterOfStandardOutput) {
  ChildRun run = runChild({"/bin/sh", "-c", "(sleep 0.3; echo late) & echo early"}, "/");
  ASSERT_TRUE(run.launched) << run.error;
  EXPECT_EQ(run.exitStatus, 0);
  EXPECT_EQ(run.out, "early\nlate\n");
}

TEST(ExecChild, SignalEndsReportTheSignalNumber) {
  ChildRun run = runChild({"/bin/sh", "-c", "kill -TERM $$"}, "/");
  ASSERT_TRUE(run.launched);
  EXPECT_EQ(run.exitStatus, 15);
}

TEST(ExecChild, SignalsStartWithTheirDefaults) {
  // The app ignores SIGPIPE; a pipeline whose reader quits early must still
  // end quietly, as it does in a terminal.
  struct sigaction ignore {}, saved {};
  ignore.sa_handler = SIG_IGN;
  sigaction(SIGPIPE, &ignore, &saved);
  ChildRun run = runChild({"/bin/sh", "-c", "yes | head -n 1"}, "/");
  sigaction(SIGPIPE, &saved, nullptr);
  ASSERT_TRUE(run.launched);
  EXPECT_EQ(run.out, "y\n");
  EXPECT_EQ(run.err, "");
  EXPECT_EQ(run.exitStatus, 0);
}

TEST(ExecChild, OnlyTheStandardDescriptorsReachTheChild) {
  int leaky = dup2(STDIN_FILENO, 57);  // deliberately without O_CLOEXEC
  ASSERT_EQ(leaky, 57);
  // ls lists the descriptors of the shell, which opens none of its own.
  ChildRun run = runChild({"/bin/sh", "-c", "ls /proc/$$/fd"}, "/");
  close(leaky);
  ASSERT_TRUE(run.launched);
  EXPECT_EQ(run.out, "0\n1\n2\n");
}

TEST(ExecChild, OutputIsCutAtTheLimitOnACharacterBoundaryAndInputIsEmpty) {
  const size_t limit = kExecOutputLimit;
  const struct {
    std::string script;
    size_t outSize, errSize;
    bool outCut, errCut;
  } cases[] = {
      // Both streams past the limit; the writer is drained to its end.
      {"head -c 20M /dev/zero; head -c 17M /dev/zero >&2; echo done >&2", limit, limit, true, true},
      // A two-byte character straddling the limit is dropped whole.
      {"head -c " + std::to_string(limit - 1) + " /dev/zero; printf '\\303\\251after'", limit - 1, 0, true, false},
      {"head -c " + std::to_string(limit) + " /dev/zero", limit, 0, false, false},
      // Standard input is empty: a reader ends at once.
      {"cat; echo read-nothing >&2", 0, 13, false, false},
  };
  for (const auto& c : cases) {
    ChildRun run = runChild({"/bin/sh", "-c", c.script}, "/");
    ASSERT_TRUE(run.launched) << run.error;
    EXPECT_EQ(run.out.size(), c.outSize) << c.script;
    EXPECT_EQ(run.err.size(), c.errSize) << c.script;
    EXPECT_EQ(run.outCut, c.outCut) << c.script;
    EXPECT_EQ(run.errCut, c.errCut) << c.script;
    EXPECT_TRUE(isValidUtf8(run.out)) << c.script;
    Json value = execResultValue(std::move(run));
    EXPECT_EQ(value.contains("truncated"), c.outCut || c.errCut) << c.script;
  }
}

TEST(ExecChild, LaunchFailuresCarryTheSystemDescription) {
  ChildRun missingDir = runChild({"/bin/true"}, "/no/such/dir");
  EXPECT_FALSE(missingDir.launched);
  EXPECT_NE(missingDir.error.find("/no/such/dir"), std::string::npos) << missingDir.error;
  EXPECT_NE(missingDir.error.find("No such file or directory"), std::string::npos) << missingDir.error;

  ChildRun missingProgram = runChild({"/no/such/program"}, "/");
  EXPECT_FALSE(missingProgram.launched);
  EXPECT_NE(missingProgram.error.find("/no/such/program"), std::string::npos) << missingProgram.error;

  ChildRun nul = runChild({"/bin/echo", std::string("a\0b", 3)}, "/");
  EXPECT_FALSE(nul.launched);
  EXPECT_FALSE(nul.error.empty());
}

TEST_F(ExecTest, ProtectedFoldersAreCreatedPrivateAndLinksRefused) {
  ASSERT_EQ(prepareProtectedFolders(home(), binds_), std::nullopt);
  for (const char* name : {".ssh", ".gnupg"}) {
    struct stat st {};
    ASSERT_EQ(lstat((dir_.path() / name).c_str(), &st), 0) << name;
    EXPECT_TRUE(S_ISDIR(st.st_mode));
    EXPECT_EQ(st.st_mode & 0777, 0700u) << name;
  }

  // Hard links between protected files are harmless; one from outside is not.
  writeText(dir_.path() / ".ssh/authorized_keys", "key");
  fs::create_hard_link(dir_.path() / ".ssh/authorized_keys", dir_.path() / ".ssh/authorized_keys2");
  fs::create_directories(dir_.path() / ".gnupg/private-keys-v1.d");
  writeText(dir_.path() / ".gnupg/private-keys-v1.d/k.key", "secret");
  EXPECT_EQ(prepareProtectedFolders(home(), binds_), std::nullopt);
  fs::create_hard_link(dir_.path() / ".gnupg/private-keys-v1.d/k.key", dir_.path() / "copy.key");
  auto refusal = prepareProtectedFolders(home(), binds_);
  ASSERT_TRUE(refusal);
  EXPECT_NE(refusal->find("k.key"), std::string::npos) << *refusal;
  fs::remove(dir_.path() / "copy.key");

  // Links inside: a target outside is protected too, one inside needs
  // nothing, a link to nothing is refused.
  writeText(dir_.path() / "dotfiles/ssh_config", "Host *\n");
  fs::create_symlink(dir_.path() / "dotfiles/ssh_config", dir_.path() / ".ssh/config");
  fs::create_symlink(dir_.path() / ".ssh/authorized_keys", dir_.path() / ".ssh/keys");
  binds_.clear();
  EXPECT_EQ(prepareProtectedFolders(home(), binds_), std::nullopt);
  EXPECT_EQ(binds_, std::vector<std::string>{fs::canonical(dir_.path() / "dotfiles/ssh_config").string()});
  fs::remove(dir_.path() / "dotfiles/ssh_config");
  refusal = prepareProtectedFolders(home(), binds_);
  ASSERT_TRUE(refusal);
  EXPECT_NE(refusal->find("config points to something that does not exist"), std::string::npos) << *refusal;

  fs::remove_all(dir_.path() / ".ssh");
  fs::create_directory(dir_.path() / "elsewhere");
  fs::create_directory_symlink(dir_.path() / "elsewhere", dir_.path() / ".ssh");
  refusal = prepareProtectedFolders(home(), binds_);
  ASSERT_TRUE(refusal);
  EXPECT_NE(refusal->find(".ssh is a symbolic link"), std::string::npos) << *refusal;
}

TEST_F(ExecTest, ReadOnlyPlanMakesMissingFoldersAndRefusesWhatACommandCouldRedirect) {
  const fs::path h = dir_.path();
  writeText(h / ".bashrc", "alias ll='ls -l'\n");
  ReadOnlyPlan plan{{(h / ".config/systemd/user").string()},
                    {(h / ".bashrc").string(), (h / ".zshrc").string(), (h / "hooks").string()}};
  std::vector<std::string> binds;
  ASSERT_EQ(prepareReadOnlyPaths(plan, binds), std::nullopt);
  EXPECT_EQ(binds, (std::vector<std::string>{(h / ".config/systemd/user").string(), (h / ".bashrc").string()}));
  struct stat st {};
  ASSERT_EQ(lstat((h / ".config/systemd/user").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0700u);
  EXPECT_FALSE(fs::exists(h / ".zshrc")) << "a missing start-up file would shadow another";

  const struct {
    const char* name;
    std::function<void()> make;
    const char* refusal;
  } cases[] = {
      {"symlinked file", [&] { fs::create_symlink(h / ".bashrc", h / "hooks"); }, "hooks is a symbolic link"},
      {"hard-linked file", [&] { fs::create_hard_link(h / ".bashrc", h / "hooks"); }, "has a hard link elsewhere"},
      {"symlinked folder", [&] { fs::create_directory_symlink(h, h / ".config/systemd/user"); },
       "user is a symbolic link"},
  };
  for (const auto& c : cases) {
    fs::remove(h / "hooks");
    fs::remove_all(h / ".config/systemd/user");
    c.make();
    binds.clear();
    auto refusal = prepareReadOnlyPaths(plan, binds);
    ASSERT_TRUE(refusal) << c.name;
    EXPECT_NE(refusal->find(c.refusal), std::string::npos) << *refusal;
  }
}

TEST_F(ExecTest, CommandRunsConfinedAndAnswersOnTheMainThread) {
  if (!haveBubblewrap()) GTEST_SKIP() << "bubblewrap is not installed";
  fs::create_directories(dir_.path() / "real-project");
  fs::create_directory_symlink(dir_.path() / "real-project", dir_.path() / "project");

  Answer a = run("~/project",
                 "pwd; echo data > here.txt; echo home > \"$HOME/home.txt\"; "
                 "{ echo nope > \"$HOME/.ssh/known_hosts\"; } 2>/dev/null || echo ssh-refused >&2; "
                 "touch \"$HOME/.gnupg/x\" 2>/dev/null || echo gnupg-refused >&2; exit 3");
  ASSERT_TRUE(a.ok) << a.value.dump();
  EXPECT_TRUE(a.onMainThread);
  EXPECT_EQ(a.value["exit"], 3);
  EXPECT_EQ(a.value["stdout"], fs::canonical(dir_.path() / "real-project").string() + "\n");
  EXPECT_EQ(a.value["stderr"], "ssh-refused\ngnupg-refused\n");
  EXPECT_EQ(readText(dir_.path() / "real-project/here.txt"), "data\n");
  EXPECT_EQ(readText(dir_.path() / "home.txt"), "home\n");
  EXPECT_FALSE(fs::exists(dir_.path() / ".ssh/known_hosts"));
  EXPECT_FALSE(fs::exists(dir_.path() / ".gnupg/x"));
}

TEST_F(ExecTest, SandboxSetupFailuresAreLaunchFailures) {
  if (!haveBubblewrap()) GTEST_SKIP() << "bubblewrap is not installed";
  // bubblewrap exits 1 with its message when it cannot build the sandbox;
  // that must not pass for the command's own exit status.
  ChildRun broken = runSandboxed({.home = "/no/such/home", .workDir = "/"}, "echo ran");
  EXPECT_FALSE(broken.launched);
  EXPECT_EQ(broken.out, "");
  EXPECT_NE(broken.error.find("/no/such/home"), std::string::npos) << broken.error;

  // A command that looks just like that failure is still a result.
  ASSERT_EQ(prepareProtectedFolders(home(), binds_), std::nullopt);
  ChildRun lookalike = runSandboxed({.home = home(), .workDir = home()}, "echo 'bwrap: no' >&2; exit 1");
  EXPECT_TRUE(lookalike.launched) << lookalike.error;
  EXPECT_EQ(lookalike.exitStatus, 1);
  EXPECT_EQ(lookalike.err, "bwrap: no\n");
}

TEST_F(ExecTest, RequestsFromThePageAreAnsweredThroughTheBridge) {
  if (!haveBubblewrap()) GTEST_SKIP() << "bubblewrap is not installed";
  LogCapture::instance();  // keeps the bridge's log lines out of the test output
  FakeHost host;
  Bridge bridge(host, kPageOrigin, [](const std::string&) {});
  registerExecAction(bridge);

  bridge.didReceiveScriptMessage(Json{{"__reqId", 7}, {"name", "exec"}, {"args", {"~", "printf 'a\"b'; exit 2"}}});
  bridge.didReceiveScriptMessage(Json{{"__reqId", "r8"}, {"name", "exec"}, {"args", {nullptr, "true"}}});
  // The argument error is answered at once, the command later.
  ASSERT_EQ(host.scripts.size(), 1u);
  auto refused = parseReply(host.scripts[0]);
  ASSERT_TRUE(refused);
  EXPECT_EQ(refused->id, "r8");
  EXPECT_FALSE(refused->ok);
  EXPECT_EQ(refused->value, "exec expects [dir, command]");
  pumpUntil([&] { return host.scripts.size() == 2; }, 60);
  ASSERT_EQ(host.scripts.size(), 2u);
  auto answered = parseReply(host.scripts[1]);
  ASSERT_TRUE(answered);
  EXPECT_EQ(answered->id, "7");
  EXPECT_TRUE(answered->ok);
  EXPECT_EQ(answered->value, Json::parse(R"({"exit": 2, "stdout": "a\"b", "stderr": ""})"));
}

}  // namespace
