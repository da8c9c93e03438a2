#include <archive.h>
#include <archive_entry.h>
#include <glib.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "home_override.h"
#include "http_test_server.h"
#include "test_files.h"
#include "update/bundle_search.h"
#include "update/install.h"
#include "update/minisign.h"
#include "update/safe_extract.h"
#include "update/swap_script.h"
#include "update/update_paths.h"
#include "update/update_signature.h"
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

bool writeZip(const std::string& path, const std::vector<ZipEntry>& entries) {
  archive* a = archive_write_new();
  archive_write_set_format_zip(a);
  bool ok = archive_write_open_filename(a, path.c_str()) == ARCHIVE_OK;
  for (const auto& e : entries) {
    archive_entry* entry = archive_entry_new();
    archive_entry_set_pathname(entry, e.name.c_str());
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
const std::vector<ZipEntry> kAppDir = {
    {"Ondrel.AppDir/", ZipEntry::Dir},
    {"Ondrel.AppDir/AppRun", ZipEntry::File, "#!/bin/sh\n", 0755},
    {"Ondrel.AppDir/ondrel.svg", ZipEntry::File, "<svg/>"},
    {"Ondrel.AppDir/.DirIcon", ZipEntry::Symlink, "ondrel.svg"},
    {"Ondrel.AppDir/usr/bin/ondrel", ZipEntry::File, "\x7f" "ELF", 0755},
};

// The n-th line (from 0) of a text, without its line end.
std::string lineOf(const std::string& text, size_t index) {
  size_t start = 0;
  for (size_t i = 0; i < index; ++i) start = text.find('\n', start) + 1;
  return text.substr(start, text.find('\n', start) - start);
}

std::string withLine(const std::string& text, size_t index, const std::string& line) {
  size_t start = 0;
  for (size_t i = 0; i < index; ++i) start = text.find('\n', start) + 1;
  return text.substr(0, start) + line + text.substr(text.find('\n', start));
}

// Key pairs and signatures made by the minisign tool itself, so the verifier
// is checked against the reference implementation, not against its own
// output. Keys have no password (-W).
class MinisignTool {
 public:
  explicit MinisignTool(std::initializer_list<std::string> keys) {
    for (const std::string& name : keys)
      run("minisign -G -W -f -p '" + path(name) + ".pub' -s '" + path(name) + ".key' >/dev/null");
  }
  // The base64 line of the public key, as a build is configured with.
  std::string keyLine(const std::string& name) const { return lineOf(readText(path(name) + ".pub"), 1); }
  // The key id as minisign prints it in the public key's comment.
  std::string keyId(const std::string& name) const {
    const std::string comment = lineOf(readText(path(name) + ".pub"), 0);
    return comment.substr(comment.rfind(' ') + 1);
  }
  // The .minisig text for file; flags "-l" makes a legacy signature.
  std::string sign(const std::string& key, const fs::path& file, const std::string& comment,
                   const std::string& flags = "") const {
    const std::string out = path("out.minisig");
    run("minisign -S " + flags + " -s '" + path(key) + ".key' -m '" + file.string() + "' -x '" + out + "' -t '" +
        comment + "' </dev/null >/dev/null");
    return readText(out);
  }

 private:
  std::string path(const std::string& name) const { return (dir_.path() / name).string(); }
  static void run(const std::string& command) { ASSERT_EQ(std::system(command.c_str()), 0) << command; }
  TempDir dir_;
};

TEST(ZipSignature, PkWithThreeFiveOrSevenOfAtLeastFourBytes) {
  for (const auto& [head, zip] : std::vector<std::pair<std::string, bool>>{
           {"PK\x03\x04", true}, {"PK\x05\x06", true}, {"PK\x07\xff", true},
           {"PK\x01\x02", false}, {"pk\x03\x04", false}, {"PK\x03", false}})
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
  for (const char* exe : {"/work/build/ondrel", "/usr/bin/ondrel", "/x/Ondrel.AppDir/bin/ondrel", ""})
    EXPECT_EQ(ondrelBundleOfExecutable(exe), std::nullopt) << exe;
}

// Runs the swap script as the app leaves it, with a `mv` first on PATH that
// fails for one chosen source, so each move can be made to fail in turn.
// Every path holds a quote, blanks, a newline and shell syntax.
TEST(SwapScript, TheInstalledAppDirIsDeletedOnlyOnceTheNewOneIsInItsPlace) {
  TempDir dir;
  const fs::path bin = dir.path() / "bin", log = dir.path() / "install.log", started = dir.path() / "started";
  const fs::path apps = dir.path() / "it's a \"folder\"\nwith $HOME `id` \\ in it";
  const fs::path app = apps / "Ondrel.AppDir", staged = dir.path() / "stage" / "Ondrel.AppDir";
  const std::string bak = app.string() + ".ondrel.bak", next = app.string() + ".ondrel.new";
  writeText(bin / "mv",
            "#!/bin/sh\n"
            "if [ \"$1\" = \"$FAIL_MV_FROM\" ]; then echo \"mv: refusing to move $1\" >&2; exit 1; fi\n"
            "exec /bin/mv \"$@\"\n");
  fs::permissions(bin / "mv", fs::perms::owner_all);
  setenv("STARTED", started.c_str(), 1);
  const struct {
    const char* what;
    std::string failFrom;  // the source whose move fails
    bool leftovers;        // an earlier swap left its backup and copy behind
    std::string after;     // the AppDir in place afterwards, and the one started
  } cases[] = {
      {"every move works", "", false, "new"},
      {"leftovers of an earlier swap are cleared first", "", true, "new"},
      {"copying the new AppDir beside the installed one fails", staged.string(), false, "old"},
      {"moving the installed AppDir aside fails", app.string(), false, "old"},
      {"moving the new AppDir into place fails", next, true, "old"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    for (const fs::path& made : {apps, staged, started}) fs::remove_all(made);
    for (const auto& [where, who] : {std::pair(app, "old"), std::pair(staged, "new")}) {
      writeText(where / "usr/bin/ondrel", who);
      writeText(where / "AppRun", std::string("#!/bin/sh\necho ") + who + " >> \"$STARTED\"\n");
      fs::permissions(where / "AppRun", fs::perms::owner_all);
    }
    if (c.leftovers)
      for (const std::string& left : {bak, next}) writeText(fs::path(left) / "usr/bin/ondrel", "stale");
    // No process has that id (it is above any pid_max): the script finds the app gone.
    writeText(dir.path() / "swap.sh", ondrelSwapScriptText(app, staged, log, 0x7fffffff));
    setenv("FAIL_MV_FROM", c.failFrom.c_str(), 1);
    const int status = std::system(("PATH='" + bin.string() + "':$PATH /bin/sh '" + dir.path().string() +
                                    "/swap.sh'").c_str());

    EXPECT_EQ(WEXITSTATUS(status), c.after == "new" ? 0 : 1);
    EXPECT_EQ(readText(app / "usr/bin/ondrel"), c.after);
    // The script starts the app in the background.
    for (int i = 0; i < 500 && readText(started).empty(); ++i) usleep(10000);
    EXPECT_EQ(readText(started), c.after + "\n");
    EXPECT_EQ(std::distance(fs::directory_iterator(apps), {}), 1) << "no backup and no copy left beside it";
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
      {{{"ok.txt", ZipEntry::File, "x"}, {"a/../../../outside/mid.txt", ZipEntry::File, "evil"}}, 1},
      {{{out + "/absolute.txt", ZipEntry::File, "evil"}}, 1},
      {{{"link", ZipEntry::Symlink, out}, {"link/through.txt", ZipEntry::File, "evil"}}, 1},
  };
  for (const auto& c : cases) {
    fs::remove_all(stage);
    fs::create_directories(stage);
    fs::create_directories(outside);
    ASSERT_TRUE(writeZip(zip.string(), c.entries));
    auto result = ondrelExtractArchive(zip.string(), stage.string());
    EXPECT_EQ(result.status, c.status) << c.entries.back().name << ": " << result.output;
    EXPECT_TRUE(fs::is_empty(outside)) << c.entries.back().name;
    EXPECT_EQ(readText(stage / "x"), c.status == 0 ? "inside" : "");
  }
  writeText(zip, std::string("PK\x03\x04", 4) + std::string(300, '\x17'));
  EXPECT_EQ(ondrelExtractArchive(zip.string(), stage.string()).status, 1);
  EXPECT_EQ(ondrelExtractArchive((dir.path() / "none.zip").string(), stage.string()).status, 1);
}

// Signatures made by the minisign tool itself with fresh keys: one
// reference implementation checks the other.
TEST(Minisign, VerdictsTable) {
  MinisignTool tool({"a", "b"});
  TempDir dir;
  const std::string keyA = tool.keyLine("a"), idA = tool.keyId("a"), idB = tool.keyId("b");
  const fs::path archive = dir.path() / "Ondrel-2.0.0-x86_64.zip", tampered = dir.path() / "t.zip",
                 empty = dir.path() / "e";
  // More than one read chunk, so the streamed hash sees several.
  std::string bytes;
  for (int i = 0; bytes.size() < (5u << 19); ++i) bytes += "PK\x03\x04 chunk " + std::to_string(i * 7919) + "\n";
  writeText(archive, bytes);
  bytes[bytes.size() / 2] ^= 1;
  writeText(tampered, bytes);
  writeText(empty, "");
  const std::string prehashed = tool.sign("a", archive, "version:2.0.0 file:Ondrel-2.0.0-x86_64.zip"),
                    legacy = tool.sign("a", archive, "version:2.0.0", "-l");
  const std::string kMismatch = "the archive does not match its signature";
  std::string crlf;
  for (char c : prehashed) crlf += c == '\n' ? std::string("\r\n") : std::string(1, c);
  // The signature line with its two algorithm bytes replaced.
  auto withAlgorithm = [](const std::string& sigText, const char* algorithm) {
    gsize length = 0;
    g_autofree guchar* raw = g_base64_decode(lineOf(sigText, 1).c_str(), &length);
    raw[0] = static_cast<guchar>(algorithm[0]);
    raw[1] = static_cast<guchar>(algorithm[1]);
    g_autofree gchar* encoded = g_base64_encode(raw, length);
    return withLine(sigText, 1, encoded);
  };
  const struct {
    const char* what;
    fs::path file;
    std::string sig, key;
    std::string reason;        // a part of the reason; "" when it must verify ...
    std::string comment = "";  // ... with this trusted comment
  } cases[] = {
      {"prehashed", archive, prehashed, keyA, "", "version:2.0.0 file:Ondrel-2.0.0-x86_64.zip"},
      {"legacy", archive, legacy, keyA, "", "version:2.0.0"},
      {"legacy, empty file", empty, tool.sign("a", empty, "version:0", "-l"), keyA, "", "version:0"},
      {"CRLF line ends", archive, crlf, keyA, "", "version:2.0.0 file:Ondrel-2.0.0-x86_64.zip"},
      {"one byte changed, prehashed", tampered, prehashed, keyA, kMismatch},
      {"one byte changed, legacy", tampered, legacy, keyA, kMismatch},
      {"legacy signature relabelled prehashed", archive, withAlgorithm(legacy, "ED"), keyA, kMismatch},
      {"another key", archive, tool.sign("b", archive, "version:2.0.0"), keyA,
       "it is signed with key " + idB + ", not with this copy's key " + idA},
      {"trusted comment edited", archive, withLine(prehashed, 2, "trusted comment: version:9.9.9"), keyA,
       "trusted comment has been altered"},
      {"unknown algorithm", archive, withAlgorithm(prehashed, "Xy"), keyA, "unknown signature algorithm"},
      {"three lines", archive, prehashed.substr(0, prehashed.rfind('\n', prehashed.size() - 2) + 1), keyA,
       "not a minisign signature (it has 3 of its 4 lines)"},
      {"an HTML page", archive, "<html>\n<body>\nNot Found\n</body>\n</html>\n", keyA,
       "its first line is not an untrusted comment"},
      {"signature line cut short", archive, withLine(prehashed, 1, lineOf(prehashed, 1).substr(0, 60)), keyA,
       "its signature line is not valid"},
      {"no trusted comment", archive, withLine(prehashed, 2, "version:2.0.0"), keyA,
       "its third line is not a trusted comment"},
      {"comment signature not base64", archive, withLine(prehashed, 3, "%%%"), keyA,
       "its comment signature line is not valid"},
      {"the public key line is no key", archive, prehashed, "RWQnot-a-key", "is not a minisign public key"},
      {"archive is a folder", dir.path(), prehashed, keyA, "the archive cannot be read"},
  };
  for (const auto& c : cases) {
    MinisignVerdict verdict = ondrelVerifyMinisign(c.file.string(), c.sig, c.key);
    if (c.reason.empty()) {
      EXPECT_TRUE(verdict.ok) << c.what << ": " << verdict.reason;
      EXPECT_EQ(verdict.trustedComment, c.comment) << c.what;
      EXPECT_EQ(verdict.keyId, idA) << c.what;
    } else {
      EXPECT_FALSE(verdict.ok) << c.what;
      EXPECT_NE(verdict.reason.find(c.reason), std::string::npos) << c.what << ": " << verdict.reason;
      EXPECT_EQ(verdict.trustedComment, "") << c.what << ": an unchecked comment is not handed on";
    }
  }
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
  auto plan = ondrelPrepareInstall(archive(kAppDir), exe_, {});
  ASSERT_EQ(plan.failure, "");
  EXPECT_EQ(plan.runningBundle, "/home/u/Apps/Ondrel.AppDir");
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
      {binary, {binary, ZipEntry::Symlink, "/bin/sh"},
       ondrelUnstartableBundleText("its usr/bin/ondrel is not a regular file"), true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.failure);
    auto entries = c.replacement.name == "README" ? std::vector<ZipEntry>{} : kAppDir;
    auto it = std::find_if(entries.begin(), entries.end(), [&](const ZipEntry& e) { return e.name == c.entry; });
    if (it == entries.end()) entries.push_back(c.replacement);
    else if (c.replacement.name.empty()) entries.erase(it);
    else *it = c.replacement;
    const std::string zip = archive(entries);
    EXPECT_EQ(ondrelPrepareInstall(zip, exe_, {}).failure, c.failure);
    EXPECT_EQ(fs::exists(ondrelStageDir()), !c.removed);
    EXPECT_EQ(fs::exists(zip), !c.removed);
    EXPECT_FALSE(fs::exists(ondrelSwapScriptPath()));
  }

  const std::string page = (home_.path() / "Ondrel.zip").string();
  writeText(page, "<html>404 Not Found</html>");
  EXPECT_EQ(ondrelPrepareInstall(page, exe_, {}).failure, ondrelNotAZipText(26));
  EXPECT_EQ(ondrelPrepareInstall(archive(kAppDir), "/work/build/ondrel", {}).failure, kNotInstalledText);
  EXPECT_FALSE(fs::exists(ondrelSwapScriptPath()));
}

// A build with a key unpacks only an archive whose signature, fetched from
// beside it, verifies and names the offered version as a field of its
// trusted comment; anything else is deleted unopened.
TEST_F(PrepareInstallTest, SignedBuildsUnpackOnlyArchivesSignedForTheOfferedVersion) {
  MinisignTool tool({"release"});
  HttpTestServer server;
  const struct {
    std::string comment;  // signed into the trusted comment; "" serves no signature
    bool installs;
    std::string version = "2.0";
  } cases[] = {
      {"timestamp:1\tfile:Ondrel-2.0-x86_64.zip\tversion:2.0", true}, {"version:2.0 file:a.zip", true},
      {"", false}, {"version:1.0", false}, {"version:2.0.1", false}, {"version:12.0", false},
      {"myversion:2.0", false}, {"file:Ondrel-2.0-x86_64.zip", false}, {"version:", false, ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.comment);
    fs::remove_all(ondrelStageDir());
    const std::string zip = archive(kAppDir);
    server.route("/r/a.zip.minisig", c.comment.empty()
                                         ? HttpTestServer::Reply{404, "<html>gone</html>"}
                                         : HttpTestServer::Reply{200, tool.sign("release", zip, c.comment)});
    const std::string reason =
        c.comment.empty() ? "its signature " + server.url("/r/a.zip.minisig") + " could not be fetched (HTTP 404)"
                          : "its signature is for another release (trusted comment “" + c.comment +
                                "”), not for version " + c.version;
    auto plan = ondrelPrepareInstall(zip, exe_, {tool.keyLine("release"), c.version, server.url("/r/a.zip.minisig")});
    EXPECT_EQ(plan.failure, c.installs ? "" : ondrelUnverifiedText(reason));
    EXPECT_EQ(fs::exists(ondrelStageDir()), c.installs) << "nothing is unpacked";
    EXPECT_EQ(fs::exists(zip), c.installs) << "the download is deleted";
  }
  EXPECT_EQ(ondrelSignatureUrl("https://h/r/Ondrel-2.0-x86_64.zip"), "https://h/r/Ondrel-2.0-x86_64.zip.minisig");
  EXPECT_EQ(ondrelSignatureUrl("https://h/r/a.zip?token=1#x"), "https://h/r/a.zip.minisig?token=1#x");
}

}  // namespace
