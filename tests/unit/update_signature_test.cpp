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

// Signatures made by the minisign tool itself with fresh keys: one
// reference implementation checks the other.
TEST(Minisign, VerdictsTable) {
  MinisignTool tool;
  TempDir dir;
  tool.makeKey("a");
  tool.makeKey("b");
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
      {"prehashed signature relabelled legacy", archive, withAlgorithm(prehashed, "Ed"), keyA, kMismatch},
      {"legacy signature relabelled prehashed", archive, withAlgorithm(legacy, "ED"), keyA, kMismatch},
      {"another key", archive, tool.sign("b", archive, "version:2.0.0"), keyA,
       "it is signed with key " + idB + ", not with this copy's key " + idA},
      {"trusted comment edited", archive, withLine(prehashed, 2, "trusted comment: version:9.9.9"), keyA,
       "trusted comment has been altered"},
      {"comment signature of another signature", archive, withLine(prehashed, 3, Tool::lineOf(legacy, 3)), keyA,
       "trusted comment has been altered"},
      {"unknown algorithm", archive, withAlgorithm(prehashed, "Xy"), keyA, "unknown signature algorithm"},
      {"empty file", archive, "", keyA, "not a minisign signature (it has 0 of its 4 lines)"},
      {"three lines", archive, prehashed.substr(0, prehashed.rfind('\n', prehashed.size() - 2) + 1), keyA,
       "it has 3 of its 4 lines"},
      {"an HTML page", archive, "<html>\n<body>\nNot Found\n</body>\n</html>\n", keyA,
       "its first line is not an untrusted comment"},
      {"signature line not base64", archive, withLine(prehashed, 1, "RUQ*not*base64"), keyA,
       "its signature line is not valid"},
      {"signature line cut short", archive, withLine(prehashed, 1, Tool::lineOf(prehashed, 1).substr(0, 60)),
       keyA, "its signature line is not valid"},
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

TEST(UpdateSignature, TrustedCommentMustNameTheVersionAsAField) {
  const struct {
    const char *comment, *version;
    bool names;
  } cases[] = {
      {"timestamp:1700000000\tfile:Ondrel-2.0.0-x86_64.zip\tversion:2.0.0", "2.0.0", true},
      {"version:2.0.0 file:a.zip", "2.0.0", true},       {"version:2.0.0.1", "2.0.0", false},
      {"version:12.0.0", "2.0.0", false},                {"myversion:2.0.0", "2.0.0", false},
      {"file:Ondrel-2.0.0-x86_64.zip", "2.0.0", false},  {"version:", "", false},
  };
  for (const auto& c : cases)
    EXPECT_EQ(ondrelTrustedCommentNamesVersion(c.comment, c.version), c.names) << c.comment << " / " << c.version;

  EXPECT_EQ(ondrelSignatureUrl("https://h/r/Ondrel-2.0-x86_64.zip"), "https://h/r/Ondrel-2.0-x86_64.zip.minisig");
  EXPECT_EQ(ondrelSignatureUrl("https://h/r/a.zip?token=1#x"), "https://h/r/a.zip.minisig?token=1#x");
}

}  // namespace
