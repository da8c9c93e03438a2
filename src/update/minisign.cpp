#include "update/minisign.h"

#include <fcntl.h>
#include <sodium.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <optional>
#include <string_view>
#include <vector>

namespace {

constexpr size_t kIdBytes = 8;
constexpr size_t kAlgBytes = 2;
constexpr size_t kHashBytes = crypto_generichash_BYTES_MAX;  // BLAKE2b-512
constexpr size_t kReadChunk = 1 << 20;

struct PublicKey {
  std::string id;  // raw bytes
  unsigned char key[crypto_sign_PUBLICKEYBYTES];
};

struct Signature {
  bool prehashed = false;
  std::string id;  // raw bytes
  unsigned char sig[crypto_sign_BYTES];
  std::string trustedComment;
  unsigned char globalSig[crypto_sign_BYTES];
};

// Strict: the whole text must be base64 of the original alphabet.
std::optional<std::string> fromBase64(std::string_view text) {
  std::string out(text.size(), '\0');
  size_t length = 0;
  if (sodium_base642bin(reinterpret_cast<unsigned char*>(out.data()), out.size(), text.data(), text.size(), nullptr,
                        &length, nullptr, sodium_base64_VARIANT_ORIGINAL) != 0)
    return std::nullopt;
  out.resize(length);
  return out;
}

// minisign prints the little-endian 64-bit id as upper-case hex without
// leading zeros; so do we, so that the ids can be compared by eye.
std::string printedId(const std::string& raw) {
  static const char digits[] = "0123456789ABCDEF";
  std::string out;
  for (auto it = raw.rbegin(); it != raw.rend(); ++it) {
    auto byte = static_cast<unsigned char>(*it);
    out += digits[byte >> 4];
    out += digits[byte & 15];
  }
  size_t first = out.find_first_not_of('0');
  return first == std::string::npos ? "0" : out.substr(first);
}

std::string_view trimmed(std::string_view text) {
  const char* blanks = " \t\r\n";
  size_t first = text.find_first_not_of(blanks);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

std::optional<PublicKey> parseKey(const std::string& line) {
  auto bytes = fromBase64(trimmed(line));
  if (!bytes || bytes->size() != kAlgBytes + kIdBytes + crypto_sign_PUBLICKEYBYTES || bytes->compare(0, 2, "Ed") != 0)
    return std::nullopt;
  PublicKey key;
  key.id = bytes->substr(kAlgBytes, kIdBytes);
  std::memcpy(key.key, bytes->data() + kAlgBytes + kIdBytes, sizeof key.key);
  return key;
}

// The four lines of a .minisig file; the trusted comment is kept byte for
// byte (only the line end goes), since its signature covers every byte.
std::optional<Signature> parseSignature(const std::string& text, std::string& why) {
  std::vector<std::string_view> lines;
  std::string_view rest(text);
  while (!rest.empty() && lines.size() < 4) {
    size_t end = rest.find('\n');
    std::string_view line = rest.substr(0, end);
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    lines.push_back(line);
    rest = end == std::string_view::npos ? std::string_view() : rest.substr(end + 1);
  }
  if (lines.size() < 4) {
    why = "it has " + std::to_string(lines.size()) + " of its 4 lines";
    return std::nullopt;
  }
  constexpr std::string_view kUntrusted = "untrusted comment: ", kTrusted = "trusted comment: ";
  if (lines[0].substr(0, kUntrusted.size()) != kUntrusted) {
    why = "its first line is not an untrusted comment";
    return std::nullopt;
  }
  Signature parsed;
  auto sig = fromBase64(trimmed(lines[1]));
  if (!sig || sig->size() != kAlgBytes + kIdBytes + crypto_sign_BYTES) {
    why = "its signature line is not valid";
    return std::nullopt;
  }
  if (sig->compare(0, 2, "ED") == 0) {
    parsed.prehashed = true;
  } else if (sig->compare(0, 2, "Ed") != 0) {
    why = "it uses an unknown signature algorithm";
    return std::nullopt;
  }
  parsed.id = sig->substr(kAlgBytes, kIdBytes);
  std::memcpy(parsed.sig, sig->data() + kAlgBytes + kIdBytes, sizeof parsed.sig);
  if (lines[2].substr(0, kTrusted.size()) != kTrusted) {
    why = "its third line is not a trusted comment";
    return std::nullopt;
  }
  parsed.trustedComment = lines[2].substr(kTrusted.size());
  auto global = fromBase64(trimmed(lines[3]));
  if (!global || global->size() != crypto_sign_BYTES) {
    why = "its comment signature line is not valid";
    return std::nullopt;
  }
  std::memcpy(parsed.globalSig, global->data(), sizeof parsed.globalSig);
  return parsed;
}

class OpenFile {
 public:
  explicit OpenFile(const std::string& path) : fd_(open(path.c_str(), O_RDONLY | O_CLOEXEC)) {}
  ~OpenFile() {
    if (fd_ >= 0) close(fd_);
  }
  OpenFile(const OpenFile&) = delete;
  OpenFile& operator=(const OpenFile&) = delete;
  int fd() const { return fd_; }

 private:
  int fd_;
};

std::string readError(int err) { return std::string("the archive cannot be read: ") + std::strerror(err); }

// Checks sig over the file's BLAKE2b-512 hash, read in chunks: memory stays
// flat whatever the archive's size.
bool verifyPrehashed(int fd, const Signature& sig, const PublicKey& key, std::string& error) {
  crypto_generichash_state state;
  crypto_generichash_init(&state, nullptr, 0, kHashBytes);
  posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL);
  std::vector<unsigned char> chunk(kReadChunk);
  for (;;) {
    ssize_t n = read(fd, chunk.data(), chunk.size());
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      error = readError(errno);
      return false;
    }
    if (n == 0) break;
    crypto_generichash_update(&state, chunk.data(), static_cast<size_t>(n));
  }
  unsigned char hash[kHashBytes];
  crypto_generichash_final(&state, hash, sizeof hash);
  return crypto_sign_verify_detached(sig.sig, hash, sizeof hash, key.key) == 0;
}

// Legacy signatures cover the message itself, which Ed25519 needs whole:
// the file is mapped, not copied.
bool verifyLegacy(int fd, size_t size, const Signature& sig, const PublicKey& key, std::string& error) {
  if (size == 0) return crypto_sign_verify_detached(sig.sig, nullptr, 0, key.key) == 0;
  void* map = mmap(nullptr, size, PROT_READ, MAP_PRIVATE, fd, 0);
  if (map == MAP_FAILED) {
    error = readError(errno);
    return false;
  }
  madvise(map, size, MADV_SEQUENTIAL);
  bool ok = crypto_sign_verify_detached(sig.sig, static_cast<const unsigned char*>(map), size, key.key) == 0;
  munmap(map, size);
  return ok;
}

}  // namespace

MinisignVerdict ondrelVerifyMinisign(const std::string& filePath, const std::string& signatureText,
                                     const std::string& keyLine) {
  MinisignVerdict verdict;
  if (sodium_init() < 0) {
    verdict.reason = "the signature library could not start";
    return verdict;
  }
  auto key = parseKey(keyLine);
  if (!key) {
    verdict.reason = "the update key built into this copy is not a minisign public key";
    return verdict;
  }
  std::string why;
  auto sig = parseSignature(signatureText, why);
  if (!sig) {
    verdict.reason = "the signature file is not a minisign signature (" + why + ")";
    return verdict;
  }
  verdict.keyId = printedId(sig->id);
  if (sig->id != key->id) {
    verdict.reason = "it is signed with key " + verdict.keyId + ", not with this copy's key " + printedId(key->id);
    return verdict;
  }

  OpenFile file(filePath);
  struct stat info {};
  if (file.fd() < 0 || fstat(file.fd(), &info) != 0) {
    verdict.reason = readError(errno);
    return verdict;
  }
  if (!S_ISREG(info.st_mode)) {
    verdict.reason = readError(EINVAL);
    return verdict;
  }
  std::string error;
  bool matches = sig->prehashed ? verifyPrehashed(file.fd(), *sig, *key, error)
                                : verifyLegacy(file.fd(), static_cast<size_t>(info.st_size), *sig, *key, error);
  if (!error.empty()) {
    verdict.reason = error;
    return verdict;
  }
  if (!matches) {
    verdict.reason = "the archive does not match its signature";
    return verdict;
  }

  std::string signedPart(reinterpret_cast<const char*>(sig->sig), sizeof sig->sig);
  signedPart += sig->trustedComment;
  if (crypto_sign_verify_detached(sig->globalSig, reinterpret_cast<const unsigned char*>(signedPart.data()),
                                  signedPart.size(), key->key) != 0) {
    verdict.reason = "the signature's trusted comment has been altered";
    return verdict;
  }
  verdict.trustedComment = sig->trustedComment;
  verdict.ok = true;
  return verdict;
}
