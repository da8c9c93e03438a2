// The verifier against signatures made by the minisign tool itself, fresh
// keys and files for every run.

#include <glib.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "minisign_tool.h"
#include "test_files.h"
#include "update/minisign.h"
#include "update/update_signature.h"

namespace fs = std::filesystem;

namespace {

using Tool = MinisignTool;

std::string withLine(const std::string& text, size_t index, const std::string& line) {
  size_t start = 0;
  for (size_t i = 0; i < index; ++i) start = text.find('\n', start) + 1;
  return text.substr(0, start) + line + text.substr(text.find('\n', start));
}

// The signature line with its two algorithm bytes replaced.
std::string withAlgorithm(const std::string& sigText, const char* algorithm) {
  gsize length = 0;
  guchar* raw = g_base64_decode(Tool::lineOf(sigText, 1).c_str(), &length);
  raw[0] = static_cast<guchar>(algorithm[0]);
  raw[1] = static_cast<guchar>(algorithm[1]);
  gchar* encoded = g_base64_encode(raw, length);
  std::string out = withLine(sigText, 1, encoded);
  g_free(encoded);
  g_free(raw);
  return out;
}

// Two key pairs and the files and signatures the cases below pick from.
struct Vectors {
  MinisignTool tool;
  TempDir dir;
  std::string keyA, idA, idB;
  fs::path archive, tampered, empty;
  std::string prehashed, legacy, otherKey, legacyEmpty;

  Vectors() {
    tool.makeKey("a");
    tool.makeKey("b");
    keyA = tool.keyLine("a");
    idA = tool.keyId("a");
    idB = tool.keyId("b");

    // More than one read chunk, so the streamed hash sees several.
    std::string bytes;
    for (int i = 0; bytes.size() < (5u << 19); ++i) bytes += "PK\x03\x04 chunk " + std::to_string(i * 7919) + "\n";
    archive = dir.path() / "Ondrel-2.0.0-x86_64.zip";
    writeText(archive, bytes);
    bytes[bytes.size() / 2] ^= 1;
    tampered = dir.path() / "tampered.zip";
    writeText(tampered, bytes);
    empty = dir.path() / "empty";
    writeText(empty, "");

    prehashed = tool.sign("a", archive, "version:2.0.0 file:Ondrel-2.0.0-x86_64.zip");
    legacy = tool.sign("a", archive, "version:2.0.0", "-l");
    otherKey = tool.sign("b", archive, "version:2.0.0");
    legacyEmpty = tool.sign("a", empty, "version:0", "-l");
  }
};

TEST(Minisign, VerdictsTable) {
  const Vectors v;
  std::string crlf;
  for (char c : v.prehashed) crlf += c == '\n' ? std::string("\r\n") : std::string(1, c);
  struct Case {
    const char* what;
    fs::path file;
    std::string sig;
    std::string key;
    std::string reason;  // a part of the reason; "" when it must verify ...
    std::string comment = "";  // ... with this trusted comment
  };
  const std::vector<Case> cases = {
      {"prehashed", v.archive, v.prehashed, v.keyA, "", "version:2.0.0 file:Ondrel-2.0.0-x86_64.zip"},
      {"legacy", v.archive, v.legacy, v.keyA, "", "version:2.0.0"},
      {"legacy, empty file", v.empty, v.legacyEmpty, v.keyA, "", "version:0"},
      {"CRLF line ends", v.archive, crlf, v.keyA, "", "version:2.0.0 file:Ondrel-2.0.0-x86_64.zip"},
      {"one byte changed, prehashed", v.tampered, v.prehashed, v.keyA, "the archive does not match its signature"},
      {"one byte changed, legacy", v.tampered, v.legacy, v.keyA, "the archive does not match its signature"},
      {"prehashed signature relabelled legacy", v.archive, withAlgorithm(v.prehashed, "Ed"), v.keyA,
       "the archive does not match its signature"},
      {"legacy signature relabelled prehashed", v.archive, withAlgorithm(v.legacy, "ED"), v.keyA,
       "the archive does not match its signature"},
      {"another key", v.archive, v.otherKey, v.keyA,
       "it is signed with key " + v.idB + ", not with this copy's key " + v.idA},
      {"trusted comment edited", v.archive, withLine(v.prehashed, 2, "trusted comment: version:9.9.9"), v.keyA,
       "trusted comment has been altered"},
      {"comment signature of another signature", v.archive, withLine(v.prehashed, 3, Tool::lineOf(v.legacy, 3)), v.keyA,
       "trusted comment has been altered"},
      {"unknown algorithm", v.archive, withAlgorithm(v.prehashed, "Xy"), v.keyA, "unknown signature algorithm"},
      {"empty file", v.archive, "", v.keyA, "not a minisign signature (it has 0 of its 4 lines)"},
      {"three lines", v.archive, v.prehashed.substr(0, v.prehashed.rfind('\n', v.prehashed.size() - 2) + 1), v.keyA,
       "it has 3 of its 4 lines"},
      {"an HTML page", v.archive, "<html>\n<body>\nNot Found\n</body>\n</html>\n", v.keyA,
       "its first line is not an untrusted comment"},
      {"signature line not base64", v.archive, withLine(v.prehashed, 1, "RUQ*not*base64"), v.keyA,
       "its signature line is not valid"},
      {"signature line cut short", v.archive, withLine(v.prehashed, 1, Tool::lineOf(v.prehashed, 1).substr(0, 60)), v.keyA,
       "its signature line is not valid"},
      {"no trusted comment", v.archive, withLine(v.prehashed, 2, "version:2.0.0"), v.keyA,
       "its third line is not a trusted comment"},
      {"comment signature not base64", v.archive, withLine(v.prehashed, 3, "%%%"), v.keyA,
       "its comment signature line is not valid"},
      {"the public key line is no key", v.archive, v.prehashed, "RWQnot-a-key", "is not a minisign public key"},
      {"the signature given as the key", v.archive, v.prehashed, Tool::lineOf(v.prehashed, 1),
       "is not a minisign public key"},
      {"archive missing", v.dir.path() / "missing.zip", v.prehashed, v.keyA, "the archive cannot be read"},
      {"archive is a folder", v.dir.path(), v.prehashed, v.keyA, "the archive cannot be read"},
  };
  for (const Case& c : cases) {
    MinisignVerdict verdict = ondrelVerifyMinisign(c.file.string(), c.sig, c.key);
    if (c.reason.empty()) {
      EXPECT_TRUE(verdict.ok) << c.what << ": " << verdict.reason;
      EXPECT_EQ(verdict.trustedComment, c.comment) << c.what;
      EXPECT_EQ(verdict.keyId, v.idA) << c.what;
    } else {
      EXPECT_FALSE(verdict.ok) << c.what;
      EXPECT_NE(verdict.reason.find(c.reason), std::string::npos) << c.what << ": " << verdict.reason;
      EXPECT_EQ(verdict.trustedComment, "") << c.what << ": an unchecked comment is not handed on";
    }
  }
}

TEST(UpdateSignature, TrustedCommentMustNameTheVersionAsAField) {
  struct Case {
    const char* comment;
    const char* version;
    bool names;
  };
  for (const Case& c : std::vector<Case>{
           {"timestamp:1700000000\tfile:Ondrel-2.0.0-x86_64.zip\tversion:2.0.0", "2.0.0", true},
           {"version:2.0.0 file:a.zip", "2.0.0", true},
           {"version:2.0.0.1", "2.0.0", false},
           {"version:12.0.0", "2.0.0", false},
           {"myversion:2.0.0", "2.0.0", false},
           {"file:Ondrel-2.0.0-x86_64.zip", "2.0.0", false},
           {"version:2.0.0", "", false},
           {"version:", "", false},
       })
    EXPECT_EQ(ondrelTrustedCommentNamesVersion(c.comment, c.version), c.names) << c.comment << " / " << c.version;
}

TEST(UpdateSignature, SignatureLivesBesideTheArchive) {
  EXPECT_EQ(ondrelSignatureUrl("https://h/r/Ondrel-2.0-x86_64.zip"), "https://h/r/Ondrel-2.0-x86_64.zip.minisig");
  EXPECT_EQ(ondrelSignatureUrl("https://h/r/a.zip?token=1#x"), "https://h/r/a.zip.minisig?token=1#x");
}

}  // namespace
