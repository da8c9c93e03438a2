#include <glib.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "home_override.h"
#include "http_test_server.h"
#include "log_capture.h"
#include "minisign_tool.h"
#include "test_files.h"
#include "update/bundle_search.h"
#include "update/install.h"
#include "update/safe_extract.h"
#include "update/swap_script.h"
#include "update/update_paths.h"
#include "update/zip_signature.h"
#include "zip_builder.h"

namespace fs = std::filesystem;

namespace {

// Every file below `root`, as relative paths (links not followed).
std::vector<std::string> treeOf(const fs::path& root) {
  std::vector<std::string> names;
  for (auto it = fs::recursive_directory_iterator(root); it != fs::recursive_directory_iterator(); ++it)
    names.push_back(it->path().lexically_relative(root).generic_string());
  std::sort(names.begin(), names.end());
  return names;
}

TEST(ZipSignature, PkWithThreeFiveOrSevenPasses) {
  using namespace std::string_literals;
  EXPECT_TRUE(ondrelHasZipSignature("PK\x03\x04"s, 4));
  EXPECT_TRUE(ondrelHasZipSignature("PK\x05\x06"s, 22));
  EXPECT_TRUE(ondrelHasZipSignature("PK\x07\xff"s, 9));
  EXPECT_TRUE(ondrelHasZipSignature("PK\x03\x00"s, 4)) << "the fourth byte is not examined";
  EXPECT_FALSE(ondrelHasZipSignature("PK\x01\x02"s, 4));
  EXPECT_FALSE(ondrelHasZipSignature("PK\x04\x03"s, 4));
  EXPECT_FALSE(ondrelHasZipSignature("pk\x03\x04"s, 4));
  EXPECT_FALSE(ondrelHasZipSignature("PK\x03"s, 3)) << "shorter than 4 bytes";
  EXPECT_FALSE(ondrelHasZipSignature("<!DOCTYPE html>"s, 15));
  EXPECT_FALSE(ondrelHasZipSignature(""s, 0));
}

TEST(ZipSignature, HeadOfAFileGivesItsLengthAndFirstBytes) {
  TempDir dir;
  writeText(dir.path() / "a.zip", std::string("PK\x03\x04rest", 8));
  auto head = ondrelReadArchiveHead((dir.path() / "a.zip").string());
  EXPECT_EQ(head.length, 8u);
  EXPECT_EQ(head.head, std::string("PK\x03\x04", 4));
  writeText(dir.path() / "short", "PK");
  EXPECT_EQ(ondrelReadArchiveHead((dir.path() / "short").string()).length, 2u);
  EXPECT_EQ(ondrelReadArchiveHead((dir.path() / "missing").string()).length, 0u);
  EXPECT_EQ(ondrelReadArchiveHead(dir.path().string()).length, 0u) << "a folder reads as nothing";
}

TEST(BundleSearch, FirstPassTakesATopLevelAppDirWithAVisibleBinary) {
  TempDir stage;
  fs::create_directories(stage.path() / "Other.txt");
  writeText(stage.path() / "Ondrel.AppDir/usr/bin/ondrel", "x");
  EXPECT_EQ(ondrelFindBundle(stage.path().string()), (stage.path() / "Ondrel.AppDir").string());
  // The suffix is matched without regard to case.
  TempDir upper;
  writeText(upper.path() / "ONDREL.APPDIR/usr/bin/ondrel", "x");
  EXPECT_EQ(ondrelFindBundle(upper.path().string()), (upper.path() / "ONDREL.APPDIR").string());
}

TEST(BundleSearch, SecondPassFindsNestedBundlesAndHiddenOnlyBinaries) {
  TempDir nested;
  writeText(nested.path() / "release/Ondrel.AppDir/usr/bin/ondrel", "x");
  EXPECT_EQ(ondrelFindBundle(nested.path().string()), (nested.path() / "release/Ondrel.AppDir").string());

  // Only hidden entries in usr/bin: the first pass passes it over, the
  // second (which asks only for the folder) still takes it.
  TempDir hidden;
  writeText(hidden.path() / "Ondrel.AppDir/usr/bin/.keep", "");
  EXPECT_EQ(ondrelFindBundle(hidden.path().string()), (hidden.path() / "Ondrel.AppDir").string());

  TempDir empty;
  fs::create_directories(empty.path() / "Ondrel.AppDir/usr/bin");
  EXPECT_EQ(ondrelFindBundle(empty.path().string()), (empty.path() / "Ondrel.AppDir").string());
}

TEST(BundleSearch, CompanionsLinksAndLookalikesAreNoBundles) {
  TempDir stage;
  writeText(stage.path() / "._Ondrel.AppDir/usr/bin/.hidden", "x");   // a companion, seen by the second pass only
  writeText(stage.path() / "Ondrel.AppDir.zip", "x");                  // a file, wrong suffix
  writeText(stage.path() / "Fake.AppDir", "not a folder");
  writeText(stage.path() / "NoBin.AppDir/usr/lib/x", "x");
  writeText(stage.path() / "outside/usr/bin/ondrel", "x");
  fs::create_directory_symlink(stage.path() / "outside", stage.path() / "Link.AppDir");
  EXPECT_EQ(ondrelFindBundle(stage.path().string()), std::nullopt);
  EXPECT_EQ(ondrelFindBundle((stage.path() / "missing").string()), std::nullopt);
}

TEST(BundleSearch, RunningBundleIsTheAppDirAroundUsrBin) {
  EXPECT_EQ(ondrelBundleOfExecutable("/home/u/Apps/Ondrel.AppDir/usr/bin/ondrel"), "/home/u/Apps/Ondrel.AppDir");
  EXPECT_EQ(ondrelBundleOfExecutable("/opt/x.appdir/usr/bin/ondrel"), "/opt/x.appdir");
  EXPECT_EQ(ondrelBundleOfExecutable("/work/build/ondrel"), std::nullopt);
  EXPECT_EQ(ondrelBundleOfExecutable("/usr/bin/ondrel"), std::nullopt);
  EXPECT_EQ(ondrelBundleOfExecutable("/x/Ondrel.AppDir/bin/ondrel"), std::nullopt);
  EXPECT_EQ(ondrelBundleOfExecutable(""), std::nullopt);
}

// Runs the swap script as the app leaves it, with a `mv` first on PATH that
// fails for one chosen source, so each move can be made to fail in turn.
// Every path holds a quote, blanks, a newline and shell syntax.
class SwapScriptTest : public ::testing::Test {
 protected:
  void SetUp() override {
    writeText(bin_ / "mv",
              "#!/bin/sh\n"
              "if [ \"$1\" = \"$FAIL_MV_FROM\" ]; then echo \"mv: refusing to move $1\" >&2; exit 1; fi\n"
              "exec /bin/mv \"$@\"\n");
    fs::permissions(bin_ / "mv", fs::perms::owner_all);
    writeText(log_, "earlier\n");
  }
  void appDir(const fs::path& where, const std::string& who) {
    writeText(where / "usr/bin/ondrel", who);
    writeText(where / "AppRun", "#!/bin/sh\necho " + who + " >> \"$STARTED\"\n");
    fs::permissions(where / "AppRun", fs::perms::owner_all);
  }
  // The exit status of the script.
  int swap(const std::string& failFrom) {
    writeText(script_, ondrelSwapScriptText(app_, new_, log_, goneProcess()));
    gchar** env = g_get_environ();
    env = g_environ_setenv(env, "PATH", (bin_.string() + ":" + g_environ_getenv(env, "PATH")).c_str(), TRUE);
    env = g_environ_setenv(env, "FAIL_MV_FROM", failFrom.c_str(), TRUE);
    env = g_environ_setenv(env, "STARTED", started_.c_str(), TRUE);
    const gchar* argv[] = {"/bin/sh", script_.c_str(), nullptr};
    gint status = -1;
    EXPECT_TRUE(g_spawn_sync(nullptr, const_cast<gchar**>(argv), env, G_SPAWN_DEFAULT, nullptr, nullptr, nullptr,
                             nullptr, &status, nullptr));
    g_strfreev(env);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
  // Which AppDir the script started; it runs in the background.
  std::string started() {
    for (int i = 0; i < 500 && readText(started_).empty(); ++i) usleep(10000);
    return readText(started_);
  }
  // The id of a process that has ended: the script finds the app gone.
  static pid_t goneProcess() {
    pid_t pid = fork();
    if (pid == 0) _exit(0);
    waitpid(pid, nullptr, 0);
    return pid;
  }

  TempDir dir_;
  const fs::path bin_ = dir_.path() / "bin", log_ = dir_.path() / "install.log";
  const fs::path started_ = dir_.path() / "started", script_ = dir_.path() / "swap.sh";
  const fs::path apps_ = dir_.path() / "it's a \"folder\"\nwith $HOME `id` \\ in it";
  const fs::path app_ = apps_ / "Ondrel.AppDir", new_ = dir_.path() / "stage" / "Ondrel.AppDir";
};

TEST_F(SwapScriptTest, TheInstalledAppDirIsDeletedOnlyOnceTheNewOneIsInItsPlace) {
  const std::string bak = app_.string() + ".ondrel.bak", next = app_.string() + ".ondrel.new";
  struct Case {
    const char* what;
    std::string failFrom;  // the source whose move fails
    bool leftovers;        // an earlier swap left its backup and copy behind
    std::string after;     // the AppDir in place afterwards, and the one started
  };
  for (const Case& c : std::vector<Case>{
           {"every move works", "", false, "new"},
           {"leftovers of an earlier swap are cleared first", "", true, "new"},
           {"copying the new AppDir beside the installed one fails", new_.string(), false, "old"},
           {"moving the installed AppDir aside fails", app_.string(), false, "old"},
           {"moving the new AppDir into place fails", next, true, "old"},
       }) {
    SCOPED_TRACE(c.what);
    fs::remove_all(apps_);
    fs::remove_all(new_);
    fs::remove(started_);
    appDir(app_, "old");
    appDir(new_, "new");
    if (c.leftovers) {
      writeText(fs::path(bak) / "usr/bin/ondrel", "stale");
      writeText(fs::path(next) / "usr/bin/ondrel", "stale");
    }

    EXPECT_EQ(swap(c.failFrom), c.after == "new" ? 0 : 1);
    EXPECT_EQ(readText(app_ / "usr/bin/ondrel"), c.after);
    EXPECT_EQ(started(), c.after + "\n");
    EXPECT_EQ(treeOf(apps_), (std::vector<std::string>{"Ondrel.AppDir", "Ondrel.AppDir/AppRun", "Ondrel.AppDir/usr",
                                                        "Ondrel.AppDir/usr/bin", "Ondrel.AppDir/usr/bin/ondrel"}))
        << "no backup and no copy left beside it";
    const std::string log = readText(log_);
    EXPECT_EQ(log.rfind("earlier\n", 0), 0u) << "the log is appended to";
    EXPECT_EQ(log.find("failed: ") != std::string::npos, c.after == "old") << log;
    EXPECT_NE(log.find("started " + app_.string() + "\n"), std::string::npos) << log;
    writeText(log_, "earlier\n");
  }
}

// Extraction must keep every write inside the staging folder, whatever
// names and links the archive carries.
class SafeExtractTest : public ::testing::Test {
 protected:
  void SetUp() override {
    stage_ = dir_.path() / "updates/stage";
    fs::create_directories(stage_);
    fs::create_directories(dir_.path() / "outside");
  }
  ExtractResult extract(const std::vector<ZipEntry>& entries) {
    const std::string zip = (dir_.path() / "a.zip").string();
    EXPECT_TRUE(writeZip(zip, entries));
    return ondrelExtractArchive(zip, stage_.string());
  }
  std::vector<std::string> outsideTree() { return treeOf(dir_.path() / "outside"); }

  TempDir dir_;
  fs::path stage_;
};

TEST_F(SafeExtractTest, UnpacksFilesFoldersLinksAndExecutableBits) {
  auto result = extract(appDirEntries("Ondrel.AppDir"));
  EXPECT_EQ(result.status, 0) << result.output;
  EXPECT_EQ(result.output, "(no output)");
  EXPECT_EQ(readText(stage_ / "Ondrel.AppDir/usr/bin/ondrel"), "\x7f" "ELF");
  EXPECT_TRUE(access((stage_ / "Ondrel.AppDir/AppRun").c_str(), X_OK) == 0);
  EXPECT_EQ(fs::read_symlink(stage_ / "Ondrel.AppDir/.DirIcon"), "ondrel.svg");
}

TEST_F(SafeExtractTest, EntriesThatClimbOutAreRefused) {
  const std::string outside = (dir_.path() / "outside").string();
  const std::vector<std::vector<ZipEntry>> hostile = {
      {{"ok.txt", ZipEntry::File, "x"}, {"../../outside/dotdot.txt", ZipEntry::File, "evil"}},
      {{"a/../../../outside/mid.txt", ZipEntry::File, "evil"}},
      {{outside + "/absolute.txt", ZipEntry::File, "evil"}},
      {{"link", ZipEntry::Symlink, outside}, {"link/through.txt", ZipEntry::File, "evil"}},
      {{"rel", ZipEntry::Symlink, "../../outside"}, {"rel/through.txt", ZipEntry::File, "evil"}},
      {{"d/", ZipEntry::Dir, ""}, {"d/up", ZipEntry::Symlink, "../../../outside"}, {"d/up/deep/x.txt", ZipEntry::File, "e"}},
  };
  for (const auto& entries : hostile) {
    fs::remove_all(stage_);
    fs::create_directories(stage_);
    auto result = extract(entries);
    EXPECT_EQ(result.status, 1) << entries.back().name;
    EXPECT_NE(result.output, "(no output)");
    EXPECT_TRUE(outsideTree().empty()) << entries.back().name << ": " << result.output;
  }
  EXPECT_TRUE(fs::exists(dir_.path() / "outside")) << "nothing outside was removed either";
}

TEST_F(SafeExtractTest, ALinkReplacedByAFileWritesTheFileInside) {
  auto result = extract({{"x", ZipEntry::Symlink, (dir_.path() / "outside/target").string()},
                         {"x", ZipEntry::File, "inside"}});
  EXPECT_EQ(result.status, 0) << result.output;
  EXPECT_TRUE(outsideTree().empty());
  EXPECT_EQ(readText(stage_ / "x"), "inside");
}

TEST_F(SafeExtractTest, GarbageIsAnErrorNotACrash) {
  writeText(dir_.path() / "bad.zip", std::string("PK\x03\x04", 4) + std::string(300, '\x17'));
  auto result = ondrelExtractArchive((dir_.path() / "bad.zip").string(), stage_.string());
  EXPECT_EQ(result.status, 1);
  EXPECT_FALSE(result.output.empty());
  EXPECT_EQ(ondrelExtractArchive((dir_.path() / "none.zip").string(), stage_.string()).status, 1);
}

// The file work of an install, end to end on disk, with the log it leaves.
class PrepareInstallTest : public ::testing::Test {
 protected:
  void SetUp() override { LogCapture::instance().clear(); }
  std::string archive(const std::vector<ZipEntry>& entries) {
    std::string path = (home_.path() / "Ondrel-2.0-x86_64.zip").string();
    EXPECT_TRUE(writeZip(path, entries));
    return path;
  }
  std::vector<std::string> updateLines() {
    std::vector<std::string> out;
    for (auto& l : LogCapture::instance().lines())
      if (l.rfind("[Update]", 0) == 0) out.push_back(l);
    return out;
  }
  HomeOverride home_;
  const std::string exe_ = "/home/u/Apps/Ondrel.AppDir/usr/bin/ondrel";
  const ArchiveTrust unsigned_;
};

TEST_F(PrepareInstallTest, ErrorPageIsNotAZip) {
  std::string page = (home_.path() / "Ondrel.zip").string();
  writeText(page, "<html>404 Not Found</html>");
  auto plan = ondrelPrepareInstall(page, exe_, unsigned_);
  EXPECT_EQ(plan.failure, ondrelNotAZipText(26));
  EXPECT_NE(plan.failure.find("The downloaded file (26 bytes) is not a valid zip archive."), std::string::npos);
  EXPECT_EQ(updateLines(), (std::vector<std::string>{"[Update] verify Ondrel.zip (26 bytes, magic NOT A ZIP)"}));
  EXPECT_FALSE(fs::exists(ondrelStageDir())) << "nothing is unpacked";
}

TEST_F(PrepareInstallTest, ArchiveWithoutBundleFailsAfterUnpacking) {
  auto plan = ondrelPrepareInstall(archive({{"README", ZipEntry::File, "hi"}}), exe_, unsigned_);
  EXPECT_EQ(plan.failure, ondrelNoBundleText(0));
  auto lines = updateLines();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[1], "[Update] unpack exited 0\n(no output)");
  EXPECT_TRUE(fs::exists(fs::path(ondrelStageDir()) / "README")) << "the staging folder is left as it is";
}

TEST_F(PrepareInstallTest, StagingIsEmptiedFirstAndAHostileArchiveFails) {
  writeText(fs::path(ondrelStageDir()) / "Old.AppDir/usr/bin/ondrel", "stale");
  auto entries = appDirEntries("Ondrel.AppDir");
  entries.push_back({"../../escape.txt", ZipEntry::File, "evil"});
  auto plan = ondrelPrepareInstall(archive(entries), exe_, unsigned_);
  EXPECT_EQ(plan.failure, ondrelNoBundleText(1));
  EXPECT_FALSE(fs::exists(fs::path(ondrelStageDir()) / "Old.AppDir"));
  EXPECT_FALSE(fs::exists(fs::path(ondrelUpdatesDir()) / "escape.txt"));
  EXPECT_FALSE(fs::exists(home_.dataDir() / "escape.txt"));
  EXPECT_EQ(updateLines()[1].rfind("[Update] unpack exited 1\n", 0), 0u);
}

TEST_F(PrepareInstallTest, ABuildOutsideAnAppDirCannotReplaceItself) {
  auto plan = ondrelPrepareInstall(archive(appDirEntries("Ondrel.AppDir")), "/work/build/ondrel", unsigned_);
  EXPECT_EQ(plan.failure, kNotInstalledText);
  EXPECT_FALSE(fs::exists(ondrelSwapScriptPath()));
}

// A bundle that would not start once swapped in is refused before any
// swap, and nothing of it stays: no archive, no staging folder, no script.
TEST_F(PrepareInstallTest, ABundleThatCouldNotStartIsDeletedUnswapped) {
  const std::string appRun = "Ondrel.AppDir/AppRun", binary = "Ondrel.AppDir/usr/bin/ondrel";
  struct Case {
    std::string entry;      // the entry changed ...
    ZipEntry replacement;   // ... into this; an empty name drops it
    std::string defect;
  };
  for (const Case& c : std::vector<Case>{
           {appRun, {}, "it has no AppRun"},
           {appRun, {appRun, ZipEntry::File, "#!/bin/sh\n", 0644}, "its AppRun is not executable"},
           {appRun, {appRun, ZipEntry::Symlink, "usr/bin/ondrel"}, "its AppRun is not a regular file"},
           {binary, {"Ondrel.AppDir/usr/bin/other", ZipEntry::File, "x", 0755}, "it has no usr/bin/ondrel"},
           {binary, {binary, ZipEntry::File, "\x7f" "ELF", 0600}, "its usr/bin/ondrel is not executable"},
           {binary, {binary, ZipEntry::Symlink, "/bin/sh"}, "its usr/bin/ondrel is not a regular file"},
       }) {
    SCOPED_TRACE(c.defect);
    LogCapture::instance().clear();
    auto entries = appDirEntries("Ondrel.AppDir");
    for (auto it = entries.begin(); it != entries.end(); ++it) {
      if (it->name != c.entry) continue;
      if (c.replacement.name.empty()) entries.erase(it);
      else *it = c.replacement;
      break;
    }
    const std::string zip = archive(entries);
    auto plan = ondrelPrepareInstall(zip, exe_, unsigned_);
    EXPECT_EQ(plan.failure, ondrelUnstartableBundleText(c.defect));
    EXPECT_EQ(updateLines().back(), "[Update] refused bundle " + ondrelStageDir() + "/Ondrel.AppDir: " + c.defect);
    EXPECT_FALSE(fs::exists(ondrelStageDir()));
    EXPECT_FALSE(fs::exists(zip));
    EXPECT_FALSE(fs::exists(ondrelSwapScriptPath()));
  }
}

TEST_F(PrepareInstallTest, GoodArchiveWritesTheSwapScript) {
  auto plan = ondrelPrepareInstall(archive(appDirEntries("Ondrel.AppDir")), exe_, unsigned_);
  ASSERT_EQ(plan.failure, "");
  const std::string bundle = ondrelStageDir() + "/Ondrel.AppDir";
  EXPECT_EQ(plan.runningBundle, "/home/u/Apps/Ondrel.AppDir");
  EXPECT_EQ(plan.scriptPath, ondrelSwapScriptPath());
  EXPECT_TRUE(fs::is_regular_file(plan.scriptPath));
  EXPECT_EQ(updateLines(), (std::vector<std::string>{
                               "[Update] verify Ondrel-2.0-x86_64.zip (" +
                                   std::to_string(fs::file_size(home_.path() / "Ondrel-2.0-x86_64.zip")) +
                                   " bytes, magic zip ✓)",
                               "[Update] unpack exited 0\n(no output)",
                               "[Update] extracted bundle at " + bundle,
                           }));
}

// A build with a key unpacks only an archive whose signature, fetched from
// beside it, verifies and names the offered version; anything else is
// deleted unopened.
TEST_F(PrepareInstallTest, SignedBuildsUnpackOnlyArchivesSignedForTheOfferedVersion) {
  MinisignTool tool;
  tool.makeKey("release");
  HttpTestServer server;
  struct Case {
    const char* what;
    std::string comment;  // signed into the trusted comment; "" serves no signature
    bool tamper;          // one byte of the archive changed after signing
    std::string reason;   // "" when it installs
  };
  for (const Case& c : std::vector<Case>{
           {"signed for the offered version", "timestamp:1\tfile:Ondrel-2.0-x86_64.zip\tversion:2.0", false, ""},
           {"no signature", "", false, "its signature " + server.url("/r/a.zip.minisig") +
                                           " could not be fetched (HTTP 404)"},
           {"signed for another version", "version:1.0", false,
            "its signature is for another release (trusted comment “version:1.0”), not for version 2.0"},
           {"changed after signing", "version:2.0", true, "the archive does not match its signature"},
       }) {
    SCOPED_TRACE(c.what);
    LogCapture::instance().clear();
    fs::remove_all(ondrelStageDir());
    const std::string zip = archive(appDirEntries("Ondrel.AppDir"));
    server.route("/r/a.zip.minisig", c.comment.empty() ? HttpTestServer::Reply{404, "<html>gone</html>"}
                                                       : HttpTestServer::Reply{200, tool.sign("release", zip, c.comment)});
    if (c.tamper) {
      std::string bytes = readText(zip);
      bytes[bytes.size() / 2] ^= 0x20;
      writeText(zip, bytes);
    }
    auto plan = ondrelPrepareInstall(zip, exe_, {tool.keyLine("release"), "2.0", server.url("/r/a.zip.minisig")});
    if (c.reason.empty()) {
      EXPECT_EQ(plan.failure, "");
      EXPECT_TRUE(fs::is_directory(ondrelStageDir() + "/Ondrel.AppDir"));
      EXPECT_EQ(updateLines().at(1), "[Update] signature ✓ key " + tool.keyId("release") + ", trusted comment “" +
                                         c.comment + "”");
    } else {
      EXPECT_EQ(plan.failure, ondrelUnverifiedText(c.reason));
      EXPECT_EQ(updateLines().at(1), "[Update] signature check failed: " + c.reason);
      EXPECT_EQ(updateLines().size(), 2u) << "nothing is unpacked";
      EXPECT_FALSE(fs::exists(ondrelStageDir()));
      EXPECT_FALSE(fs::exists(zip)) << "the download is deleted";
    }
  }
}

}  // namespace
