#include <archive.h>
#include <archive_entry.h>
#include <glib.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "home_override.h"
#include "http_test_server.h"
#include "minisign_tool.h"
#include "test_files.h"
#include "update/bundle_search.h"
#include "update/install.h"
#include "update/safe_extract.h"
#include "update/swap_script.h"
#include "update/update_paths.h"
#include "update/zip_signature.h"

namespace fs = std::filesystem;

namespace {

// Archives with whatever entries a test needs, hostile ones included.
struct ZipEntry {
  enum Kind { File, Dir, Symlink };
  std::string name;
  Kind kind = File;
  std::string data;  // file contents, or the link target
  int mode = 0644;
};

inline bool writeZip(const std::string& path, const std::vector<ZipEntry>& entries) {
  archive* a = archive_write_new();
  archive_write_set_format_zip(a);
  if (archive_write_open_filename(a, path.c_str()) != ARCHIVE_OK) {
    archive_write_free(a);
    return false;
  }
  bool ok = true;
  for (const auto& e : entries) {
    archive_entry* entry = archive_entry_new();
    archive_entry_set_pathname(entry, e.name.c_str());
    archive_entry_set_mtime(entry, 1700000000, 0);
    const unsigned type = e.kind == ZipEntry::File ? AE_IFREG : e.kind == ZipEntry::Dir ? AE_IFDIR : AE_IFLNK;
    archive_entry_set_filetype(entry, type);
    if (e.kind == ZipEntry::File) archive_entry_set_size(entry, static_cast<la_int64_t>(e.data.size()));
    if (e.kind == ZipEntry::Symlink) archive_entry_set_symlink(entry, e.data.c_str());
    archive_entry_set_perm(entry, e.kind == ZipEntry::Dir ? 0755 : e.mode);
    ok = ok && archive_write_header(a, entry) == ARCHIVE_OK;
    if (e.kind == ZipEntry::File && !e.data.empty())
      ok = ok && archive_write_data(a, e.data.data(), e.data.size()) == static_cast<la_ssize_t>(e.data.size());
    archive_entry_free(entry);
  }
  ok = archive_write_close(a) == ARCHIVE_OK && ok;
  archive_write_free(a);
  return ok;
}

// A minimal AppDir as the packaging script lays it out.
inline std::vector<ZipEntry> appDirEntries(const std::string& prefix) {
  return {
      {prefix + "/", ZipEntry::Dir, ""},
      {prefix + "/AppRun", ZipEntry::File, "#!/bin/sh\n", 0755},
      {prefix + "/ondrel.desktop", ZipEntry::File, "[Desktop Entry]\n"},
      {prefix + "/ondrel.svg", ZipEntry::File, "<svg/>"},
      {prefix + "/.DirIcon", ZipEntry::Symlink, "ondrel.svg"},
      {prefix + "/usr/", ZipEntry::Dir, ""},
      {prefix + "/usr/bin/", ZipEntry::Dir, ""},
      {prefix + "/usr/bin/ondrel", ZipEntry::File, "\x7f" "ELF", 0755},
  };
}

TEST(ZipSignature, PkWithThreeFiveOrSevenOfAtLeastFourBytes) {
  using namespace std::string_literals;
  for (const auto& [head, zip] : std::vector<std::pair<std::string, bool>>{
           {"PK\x03\x04"s, true}, {"PK\x05\x06"s, true}, {"PK\x07\xff"s, true}, {"PK\x03\x00"s, true},
           {"PK\x01\x02"s, false}, {"pk\x03\x04"s, false}, {"PK\x03"s, false}, {"<!DOCTYPE html>"s, false}})
    EXPECT_EQ(ondrelHasZipSignature(head, head.size()), zip) << head;
  TempDir dir;
  for (const fs::path& unreadable : {dir.path() / "missing", dir.path()})
    EXPECT_EQ(ondrelReadArchiveHead(unreadable.string()).length, 0u) << unreadable;
}

TEST(BundleSearch, FindsTheAppDirWithAUsrBinAndNeverALink) {
  const struct {
    std::vector<std::string> made;  // a trailing "/" makes a folder, "name>target" a link
    std::optional<std::string> bundle;
  } cases[] = {
      {{"Other.txt/", "ONDREL.APPDIR/usr/bin/ondrel"}, "ONDREL.APPDIR"},
      {{"release/Ondrel.AppDir/usr/bin/ondrel"}, "release/Ondrel.AppDir"},
      {{"Ondrel.AppDir/usr/bin/.keep"}, "Ondrel.AppDir"},
      {{"Ondrel.AppDir/usr/bin/"}, "Ondrel.AppDir"},
      {{"._Ondrel.AppDir/usr/bin/.hidden", "Ondrel.AppDir.zip", "Fake.AppDir", "NoBin.AppDir/usr/lib/x",
        "outside/usr/bin/ondrel", "Link.AppDir>outside"},
       std::nullopt},
  };
  for (const auto& c : cases) {
    TempDir stage;
    for (const std::string& made : c.made) {
      if (auto arrow = made.find('>'); arrow != std::string::npos)
        fs::create_directory_symlink(stage.path() / made.substr(arrow + 1), stage.path() / made.substr(0, arrow));
      else if (made.back() == '/') fs::create_directories(stage.path() / made);
      else writeText(stage.path() / made, "x");
    }
    const auto found = ondrelFindBundle(stage.path().string());
    EXPECT_EQ(found, c.bundle ? std::optional((stage.path() / *c.bundle).string()) : std::nullopt) << c.made[0];
  }
  EXPECT_EQ(ondrelFindBundle("/nonexistent/stage"), std::nullopt);

  EXPECT_EQ(ondrelBundleOfExecutable("/home/u/Apps/Ondrel.AppDir/usr/bin/ondrel"), "/home/u/Apps/Ondrel.AppDir");
  EXPECT_EQ(ondrelBundleOfExecutable("/opt/x.appdir/usr/bin/ondrel"), "/opt/x.appdir");
  for (const char* exe : {"/work/build/ondrel", "/usr/bin/ondrel", "/x/Ondrel.AppDir/bin/ondrel", ""})
    EXPECT_EQ(ondrelBundleOfExecutable(exe), std::nullopt) << exe;
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
  }
  void appDir(const fs::path& where, const std::string& who) {
    writeText(where / "usr/bin/ondrel", who);
    writeText(where / "AppRun", "#!/bin/sh\necho " + who + " >> \"$STARTED\"\n");
    fs::permissions(where / "AppRun", fs::perms::owner_all);
  }
  // The exit status of the script.
  int swap(const std::string& failFrom) {
    pid_t gone = fork();  // an ended process: the script finds the app gone
    if (gone == 0) _exit(0);
    waitpid(gone, nullptr, 0);
    writeText(script_, ondrelSwapScriptText(app_, new_, log_, gone));
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

  TempDir dir_;
  const fs::path bin_ = dir_.path() / "bin", log_ = dir_.path() / "install.log";
  const fs::path started_ = dir_.path() / "started", script_ = dir_.path() / "swap.sh";
  const fs::path apps_ = dir_.path() / "it's a \"folder\"\nwith $HOME `id` \\ in it";
  const fs::path app_ = apps_ / "Ondrel.AppDir", new_ = dir_.path() / "stage" / "Ondrel.AppDir";
};

TEST_F(SwapScriptTest, TheInstalledAppDirIsDeletedOnlyOnceTheNewOneIsInItsPlace) {
  const std::string bak = app_.string() + ".ondrel.bak", next = app_.string() + ".ondrel.new";
  const struct {
    const char* what;
    std::string failFrom;  // the source whose move fails
    bool leftovers;        // an earlier swap left its backup and copy behind
    std::string after;     // the AppDir in place afterwards, and the one started
  } cases[] = {
      {"every move works", "", false, "new"},
      {"leftovers of an earlier swap are cleared first", "", true, "new"},
      {"copying the new AppDir beside the installed one fails", new_.string(), false, "old"},
      {"moving the installed AppDir aside fails", app_.string(), false, "old"},
      {"moving the new AppDir into place fails", next, true, "old"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    fs::remove_all(apps_);
    fs::remove_all(new_);
    fs::remove(started_);
    writeText(log_, "earlier\n");
    appDir(app_, "old");
    appDir(new_, "new");
    if (c.leftovers) {
      writeText(fs::path(bak) / "usr/bin/ondrel", "stale");
      writeText(fs::path(next) / "usr/bin/ondrel", "stale");
    }

    EXPECT_EQ(swap(c.failFrom), c.after == "new" ? 0 : 1);
    EXPECT_EQ(readText(app_ / "usr/bin/ondrel"), c.after);
    EXPECT_EQ(started(), c.after + "\n");
    EXPECT_EQ(std::distance(fs::directory_iterator(apps_), {}), 1) << "no backup and no copy left beside it";
    const std::string log = readText(log_);
    EXPECT_EQ(log.rfind("earlier\n", 0), 0u) << "the log is appended to";
    EXPECT_EQ(log.find("failed: ") != std::string::npos, c.after == "old") << log;
    EXPECT_NE(log.find("started " + app_.string() + "\n"), std::string::npos) << log;
  }
}

// Extraction must keep every write inside the staging folder, whatever
// names and links the archive carries.
TEST(SafeExtract, NothingIsWrittenOutsideTheStagingFolder) {
  TempDir dir;
  const fs::path stage = dir.path() / "updates/stage", outside = dir.path() / "outside", zip = dir.path() / "a.zip";
  const std::string out = outside.string();
  const struct {
    std::vector<ZipEntry> entries;
    int status;
  } cases[] = {
      // A link replaced by a file of the same name: the file lands inside.
      {{{"x", ZipEntry::Symlink, out + "/target"}, {"x", ZipEntry::File, "inside"}}, 0},
      {{{"ok.txt", ZipEntry::File, "x"}, {"../../outside/dotdot.txt", ZipEntry::File, "evil"}}, 1},
      {{{"a/../../../outside/mid.txt", ZipEntry::File, "evil"}}, 1},
      {{{out + "/absolute.txt", ZipEntry::File, "evil"}}, 1},
      {{{"link", ZipEntry::Symlink, out}, {"link/through.txt", ZipEntry::File, "evil"}}, 1},
      {{{"d/", ZipEntry::Dir}, {"d/up", ZipEntry::Symlink, "../../../outside"}, {"d/up/x.txt", ZipEntry::File}}, 1},
  };
  for (const auto& c : cases) {
    fs::remove_all(stage);
    fs::create_directories(stage);
    fs::create_directories(outside);
    ASSERT_TRUE(writeZip(zip.string(), c.entries));
    auto result = ondrelExtractArchive(zip.string(), stage.string());
    EXPECT_EQ(result.status, c.status) << c.entries.back().name << ": " << result.output;
    EXPECT_EQ(result.output == "(no output)", c.status == 0) << result.output;
    EXPECT_TRUE(fs::is_empty(outside)) << c.entries.back().name;
    EXPECT_EQ(readText(stage / "x"), c.status == 0 ? "inside" : "");
  }
  writeText(zip, std::string("PK\x03\x04", 4) + std::string(300, '\x17'));
  EXPECT_EQ(ondrelExtractArchive(zip.string(), stage.string()).status, 1);
  EXPECT_EQ(ondrelExtractArchive((dir.path() / "none.zip").string(), stage.string()).status, 1);
}

// The file work of an install, end to end on disk.
class PrepareInstallTest : public ::testing::Test {
 protected:
  std::string archive(const std::vector<ZipEntry>& entries) {
    std::string path = (home_.path() / "Ondrel-2.0-x86_64.zip").string();
    EXPECT_TRUE(writeZip(path, entries));
    return path;
  }
  HomeOverride home_;
  const std::string exe_ = "/home/u/Apps/Ondrel.AppDir/usr/bin/ondrel";
};

TEST_F(PrepareInstallTest, GoodArchiveIsUnpackedAndTheSwapScriptWritten) {
  writeText(fs::path(ondrelStageDir()) / "Old.AppDir/usr/bin/ondrel", "stale");
  const std::string zip = archive(appDirEntries("Ondrel.AppDir"));
  auto plan = ondrelPrepareInstall(zip, exe_, {});
  ASSERT_EQ(plan.failure, "");
  EXPECT_EQ(plan.runningBundle, "/home/u/Apps/Ondrel.AppDir");
  EXPECT_EQ(plan.scriptPath, ondrelSwapScriptPath());
  EXPECT_TRUE(fs::is_regular_file(plan.scriptPath));
  EXPECT_FALSE(fs::exists(fs::path(ondrelStageDir()) / "Old.AppDir")) << "staging is emptied first";
  const fs::path bundle = ondrelStageDir() + "/Ondrel.AppDir";
  EXPECT_EQ(readText(bundle / "usr/bin/ondrel"), "\x7f" "ELF");
  EXPECT_EQ(fs::read_symlink(bundle / ".DirIcon"), "ondrel.svg");
}

TEST_F(PrepareInstallTest, RefusedArchivesWriteNoSwapScript) {
  const std::string appRun = "Ondrel.AppDir/AppRun", binary = "Ondrel.AppDir/usr/bin/ondrel";
  const struct {
    std::string entry;     // the entry changed ...
    ZipEntry replacement;  // ... into this (an empty name drops it, one not in the AppDir adds it)
    std::string failure;
    bool removed;  // archive and staging folder are deleted
  } cases[] = {
      {"", {"README", ZipEntry::File, "hi"}, ondrelNoBundleText(0), false},
      {"", {"../../escape.txt", ZipEntry::File, "evil"}, ondrelNoBundleText(1), false},  // unpacked part-way
      {appRun, {}, ondrelUnstartableBundleText("it has no AppRun"), true},
      {appRun, {appRun, ZipEntry::File, "#!/bin/sh\n", 0644},
       ondrelUnstartableBundleText("its AppRun is not executable"), true},
      {appRun, {appRun, ZipEntry::Symlink, "usr/bin/ondrel"},
       ondrelUnstartableBundleText("its AppRun is not a regular file"), true},
      {binary, {"Ondrel.AppDir/usr/bin/other", ZipEntry::File, "x", 0755},
       ondrelUnstartableBundleText("it has no usr/bin/ondrel"), true},
      {binary, {binary, ZipEntry::File, "\x7f" "ELF", 0600},
       ondrelUnstartableBundleText("its usr/bin/ondrel is not executable"), true},
      {binary, {binary, ZipEntry::Symlink, "/bin/sh"},
       ondrelUnstartableBundleText("its usr/bin/ondrel is not a regular file"), true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.failure);
    auto entries = c.replacement.name == "README" ? std::vector<ZipEntry>{} : appDirEntries("Ondrel.AppDir");
    auto it = std::find_if(entries.begin(), entries.end(), [&](const ZipEntry& e) { return e.name == c.entry; });
    if (it == entries.end()) entries.push_back(c.replacement);
    else if (c.replacement.name.empty()) entries.erase(it);
    else *it = c.replacement;
    const std::string zip = archive(entries);
    EXPECT_EQ(ondrelPrepareInstall(zip, exe_, {}).failure, c.failure);
    EXPECT_EQ(fs::exists(ondrelStageDir()), !c.removed);
    EXPECT_EQ(fs::exists(zip), !c.removed);
    EXPECT_FALSE(fs::exists(ondrelSwapScriptPath()));
    EXPECT_FALSE(fs::exists(fs::path(ondrelUpdatesDir()) / "escape.txt"));
  }

  const std::string page = (home_.path() / "Ondrel.zip").string();
  writeText(page, "<html>404 Not Found</html>");
  EXPECT_EQ(ondrelPrepareInstall(page, exe_, {}).failure, ondrelNotAZipText(26));
  EXPECT_EQ(ondrelPrepareInstall(archive(appDirEntries("Ondrel.AppDir")), "/work/build/ondrel", {}).failure,
            kNotInstalledText);
  EXPECT_FALSE(fs::exists(ondrelSwapScriptPath()));
}

// A build with a key unpacks only an archive whose signature, fetched from
// beside it, verifies and names the offered version; anything else is
// deleted unopened.
TEST_F(PrepareInstallTest, SignedBuildsUnpackOnlyArchivesSignedForTheOfferedVersion) {
  MinisignTool tool;
  tool.makeKey("release");
  HttpTestServer server;
  const struct {
    const char* what;
    std::string comment;  // signed into the trusted comment; "" serves no signature
    bool tamper;          // one byte of the archive changed after signing
    std::string reason;   // "" when it installs
  } cases[] = {
      {"signed for the offered version", "timestamp:1\tfile:Ondrel-2.0-x86_64.zip\tversion:2.0", false, ""},
      {"no signature", "", false,
       "its signature " + server.url("/r/a.zip.minisig") + " could not be fetched (HTTP 404)"},
      {"signed for another version", "version:1.0", false,
       "its signature is for another release (trusted comment “version:1.0”), not for version 2.0"},
      {"changed after signing", "version:2.0", true, "the archive does not match its signature"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    fs::remove_all(ondrelStageDir());
    const std::string zip = archive(appDirEntries("Ondrel.AppDir"));
    server.route("/r/a.zip.minisig", c.comment.empty()
                                         ? HttpTestServer::Reply{404, "<html>gone</html>"}
                                         : HttpTestServer::Reply{200, tool.sign("release", zip, c.comment)});
    if (c.tamper) {
      std::string bytes = readText(zip);
      bytes[bytes.size() / 2] ^= 0x20;
      writeText(zip, bytes);
    }
    auto plan = ondrelPrepareInstall(zip, exe_, {tool.keyLine("release"), "2.0", server.url("/r/a.zip.minisig")});
    EXPECT_EQ(plan.failure, c.reason.empty() ? "" : ondrelUnverifiedText(c.reason));
    if (!c.reason.empty()) {
      EXPECT_FALSE(fs::exists(ondrelStageDir())) << "nothing is unpacked";
      EXPECT_FALSE(fs::exists(zip)) << "the download is deleted";
    }
  }
}

}  // namespace
