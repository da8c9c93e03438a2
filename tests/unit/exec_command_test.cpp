#include "bridge/exec_command.h"

#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "base/text.h"
#include "home_override.h"
#include "test_files.h"

namespace fs = std::filesystem;

namespace {

// The sanitizers' allocators hold freed memory back, so a peak there says
// nothing about what the code holds.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kPeaksTell = false;
#else
constexpr bool kPeaksTell = true;
#endif

long peakKiB() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss;
}

bool privateMode(const fs::path& path) {
  return (fs::symlink_status(path).permissions() & fs::perms::all) == fs::perms::owner_all;
}

class ExecTest : public ::testing::Test {
 protected:
  std::string home() const { return home_.path().string(); }
  HomeOverride home_;
  std::vector<std::string> binds_;
};

TEST(ExecArguments, BadArgumentsAreRefusedAtOnce) {
  for (const Json& args : {Json::array(), Json::array({"/tmp", 42}), Json::array({42, "true"}),
                           Json::object({{"dir", "/tmp"}, {"command", "true"}})}) {
    std::optional<std::pair<bool, Json>> reply;
    execCommand(args, [&](bool ok, const Json& value) { reply = {ok, value}; });
    ASSERT_TRUE(reply) << "answered before returning: " << args.dump();
    EXPECT_EQ(*reply, std::make_pair(false, Json(kExecUsage))) << args.dump();
  }
}

TEST(ExecPaths, TildeIsExpandedOnlyAtTheStartAndLinksAreResolved) {
  const std::pair<const char*, const char*> tildes[] = {
      {"~", "/h"},   {"~/project/x", "/h/project/x"}, {"/a/~/b", "/a/~/b"},   {"a~", "a~"},
      {"", ""},      {"~root/x", "/root/x"},          {"~no-such-user-here/x", "~no-such-user-here/x"}};
  for (const auto& [path, expanded] : tildes) EXPECT_EQ(expandTilde(path, "/h"), expanded) << path;

  TempDir dir;
  fs::create_directories(dir.path() / "real/inner");
  fs::create_directory_symlink(dir.path() / "real", dir.path() / "project");
  const std::string home = dir.path().string(), real = fs::canonical(dir.path() / "real").string();
  EXPECT_EQ(resolveWorkDir("~/project", home), real);
  EXPECT_EQ(resolveWorkDir("~/project/inner/..", home), real);
  EXPECT_EQ(resolveWorkDir("~/missing/x", home), home + "/missing/x") << "unresolvable: as written";
}

TEST(ExecOutput, OutputThatIsNotUtf8BecomesEmpty) {
  // Checked past a NUL; U+10FFFF is the last; cut short, overlong, surrogate, past U+10FFFF.
  const std::pair<std::string, bool> cases[] = {
      {"", true},          {"gr\xC3\xBC\xC3\x9F \xE2\x86\x92 \xF0\x9F\x98\x80", true}, {std::string("a\0b", 3), true},
      {std::string("a\0\xFF", 3), false}, {"\xF4\x8F\xBF\xBF", true}, {"\xFF", false}, {"\xC3", false},
      {"\xC0\xAF", false}, {"\xE0\x80\xAF", false}, {"\xED\xA0\x80", false}, {"\xF4\x90\x80\x80", false},
      {"ok\x80", false}};
  for (const auto& [text, valid] : cases) EXPECT_EQ(isValidUtf8(text), valid) << testing::PrintToString(text);

  ChildRun run{.launched = true, .exitStatus = 3, .out = "caf\xE9", .err = "fine"};
  EXPECT_EQ(execResultValue(std::move(run)).dump(), R"({"exit":3,"stdout":"","stderr":"fine"})");
}

TEST(ExecChild, RunsWithEmptyInputDefaultSignalsAndOnlyTheStandardDescriptorsAndReadsBothOutputsWhole) {
  const size_t limit = kExecOutputLimit;
  const std::string mib = "head -c 1048576 /dev/zero | tr '\\0' ";
  const struct {
    std::string script;
    int exit;
    std::string out, err;
    bool outCut = false, errCut = false;
  } cases[] = {
      // 1 MiB on stderr first: a reader that finished stdout first would block the child.
      {mib + "e >&2; " + mib + "o; exit 5", 5, std::string(1 << 20, 'o'), std::string(1 << 20, 'e')},
      {"(sleep 0.3; echo late) & echo early", 0, "early\nlate\n", ""},
      {"kill -TERM $$", 15, "", ""},
      // The app ignores SIGPIPE; a pipeline whose reader quits early must still end quietly.
      {"yes | head -n 1", 0, "y\n", ""},
      // The shell opens no descriptor of its own.
      {"ls /proc/$$/fd", 0, "0\n1\n2\n", ""},
      {"cat; echo read-nothing >&2", 0, "", "read-nothing\n"},
      // Both past the limit and drained to the end; a character straddling the limit is dropped whole.
      {"head -c 200M /dev/zero; head -c 17M /dev/zero >&2; exit 4", 4, std::string(limit, '\0'),
       std::string(limit, '\0'), true, true},
      {"head -c " + std::to_string(limit - 1) + " /dev/zero; printf '\\303\\251after'", 0,
       std::string(limit - 1, '\0'), "", true},
      {"head -c " + std::to_string(limit) + " /dev/zero", 0, std::string(limit, '\0'), ""},
  };
  struct sigaction ignore {}, saved {};
  ignore.sa_handler = SIG_IGN;
  sigaction(SIGPIPE, &ignore, &saved);
  ASSERT_EQ(dup2(STDIN_FILENO, 57), 57);  // without close-on-exec on purpose
  const long peakBefore = peakKiB();
  for (const auto& c : cases) {
    ChildRun run = runChild({"/bin/sh", "-c", c.script}, "/");
    ASSERT_TRUE(run.launched) << run.error;
    EXPECT_EQ(run.exitStatus, c.exit) << c.script;
    EXPECT_TRUE(run.out == c.out) << c.script << ": " << run.out.size() << " bytes out";
    EXPECT_TRUE(run.err == c.err) << c.script << ": " << run.err.size() << " bytes err";
    EXPECT_EQ(std::make_pair(run.outCut, run.errCut), std::make_pair(c.outCut, c.errCut)) << c.script;
    EXPECT_EQ(execResultValue(std::move(run)).contains("truncated"), c.outCut || c.errCut) << c.script;
  }
  close(57);
  sigaction(SIGPIPE, &saved, nullptr);
  if (kPeaksTell) {
    EXPECT_LT(peakKiB() - peakBefore, 150 << 10) << "what is past the limit is dropped as it comes, not held";
  }
}

TEST(ExecChild, LaunchFailuresCarryTheSystemDescription) {
  using Argv = std::vector<std::string>;
  const std::tuple<Argv, const char*, Argv> cases[] = {
      {{"/bin/true"}, "/no/such/dir", {"/no/such/dir", "No such file or directory"}},
      {{"/no/such/program"}, "/", {"/no/such/program"}},
      {{"/bin/echo", std::string("a\0b", 3)}, "/", {}}};
  for (const auto& [argv, cwd, mentions] : cases) {
    ChildRun run = runChild(argv, cwd);
    EXPECT_TRUE(!run.launched && !run.error.empty()) << argv[0];
    for (const auto& text : mentions) EXPECT_NE(run.error.find(text), std::string::npos) << run.error;
  }
}

TEST_F(ExecTest, ProtectedFoldersAreCreatedPrivateAndWhatCouldRedirectAWriteIsRefused) {
  const fs::path h = home_.path();
  ASSERT_EQ(prepareProtectedFolders(home(), binds_), std::nullopt);
  for (const char* name : {".ssh", ".gnupg"})
    EXPECT_TRUE(fs::is_directory(fs::symlink_status(h / name)) && privateMode(h / name)) << name;
  writeText(h / ".ssh/authorized_keys", "key");
  writeText(h / ".gnupg/private-keys-v1.d/k.key", "secret");
  writeText(h / "dotfiles/ssh_config", "Host *\n");
  // Hard links among protected files and symbolic links inside are harmless.
  fs::create_hard_link(h / ".ssh/authorized_keys", h / ".ssh/authorized_keys2");
  fs::create_symlink(h / ".ssh/authorized_keys", h / ".ssh/keys");
  fs::create_symlink(h / "dotfiles/ssh_config", h / ".ssh/config");
  ASSERT_EQ(prepareProtectedFolders(home(), binds_), std::nullopt);
  EXPECT_EQ(binds_, std::vector<std::string>{fs::canonical(h / "dotfiles/ssh_config").string()})
      << "a link's target outside is protected too";

  const std::pair<std::function<void()>, const char*> cases[] = {
      {[&] { fs::create_hard_link(h / ".gnupg/private-keys-v1.d/k.key", h / "copy.key"); }, "k.key"},
      {[&] { fs::remove(h / "dotfiles/ssh_config"); }, "config points to something that does not exist"},
      {[&] {
         fs::remove_all(h / ".ssh");
         fs::create_directory_symlink(h / "dotfiles", h / ".ssh");
       },
       ".ssh is a symbolic link"},
  };
  for (const auto& [make, reason] : cases) {
    make();
    auto refusal = prepareProtectedFolders(home(), binds_);
    ASSERT_TRUE(refusal) << reason;
    EXPECT_NE(refusal->find(reason), std::string::npos) << *refusal;
    fs::remove(h / "copy.key");
  }
}

TEST_F(ExecTest, ReadOnlyPlanMakesMissingFoldersAndRefusesWhatACommandCouldRedirect) {
  const fs::path h = home_.path();
  writeText(h / ".bashrc", "alias ll='ls -l'\n");
  ReadOnlyPlan plan{{(h / ".config/systemd/user").string()},
                    {(h / ".bashrc").string(), (h / ".zshrc").string(), (h / "hooks").string()}};
  std::vector<std::string> binds;
  ASSERT_EQ(prepareReadOnlyPaths(plan, binds), std::nullopt);
  EXPECT_EQ(binds, (std::vector<std::string>{(h / ".config/systemd/user").string(), (h / ".bashrc").string()}));
  EXPECT_TRUE(privateMode(h / ".config/systemd/user"));
  EXPECT_FALSE(fs::exists(h / ".zshrc")) << "a missing start-up file would shadow another";

  const std::pair<std::function<void()>, const char*> cases[] = {
      {[&] { fs::create_symlink(h / ".bashrc", h / "hooks"); }, "hooks is a symbolic link"},
      {[&] { fs::create_hard_link(h / ".bashrc", h / "hooks"); }, "has a hard link elsewhere"},
      {[&] { fs::create_directory_symlink(h, h / ".config/systemd/user"); }, "user is a symbolic link"},
  };
  for (const auto& [make, reason] : cases) {
    fs::remove(h / "hooks");
    fs::remove_all(h / ".config/systemd/user");
    make();
    auto refusal = prepareReadOnlyPaths(plan, binds);
    ASSERT_TRUE(refusal) << reason;
    EXPECT_NE(refusal->find(reason), std::string::npos) << *refusal;
  }
}

TEST_F(ExecTest, SandboxSetupFailuresAreLaunchFailuresButACommandsOwnExitIsNot) {
  if (access(kBubblewrapPath, X_OK) != 0) GTEST_SKIP() << "bubblewrap is not installed";
  // bubblewrap exits 1 with its message when it cannot build the sandbox.
  ChildRun broken = runSandboxed({.home = "/no/such/home", .workDir = "/"}, "echo ran");
  EXPECT_FALSE(broken.launched);
  EXPECT_EQ(broken.out, "");
  EXPECT_NE(broken.error.find("/no/such/home"), std::string::npos) << broken.error;

  ASSERT_EQ(prepareProtectedFolders(home(), binds_), std::nullopt);
  ChildRun lookalike = runSandboxed({.home = home(), .workDir = home()}, "echo 'bwrap: no' >&2; exit 1");
  EXPECT_TRUE(lookalike.launched) << lookalike.error;
  EXPECT_EQ(lookalike.exitStatus, 1);
  EXPECT_EQ(lookalike.err, "bwrap: no\n");
}

}  // namespace
