#include "update/update_signature.h"

#include "base/log.h"
#include "build_config.h"
#include "update/http_get.h"
#include "update/minisign.h"

bool ondrelUpdatesAreSigned() { return *ondrel::build::kUpdatePublicKey != '\0'; }

ArchiveTrust ondrelArchiveTrust(const std::string& version, const std::string& zipUrl) {
  return {ondrel::build::kUpdatePublicKey, version, ondrelSignatureUrl(zipUrl)};
}

std::string ondrelSignatureUrl(const std::string& zipUrl) {
  size_t end = zipUrl.find_first_of("?#");
  if (end == std::string::npos) return zipUrl + ".minisig";
  return zipUrl.substr(0, end) + ".minisig" + zipUrl.substr(end);
}

bool ondrelTrustedCommentNamesVersion(const std::string& trustedComment, const std::string& version) {
  if (version.empty()) return false;
  const std::string wanted = "version:" + version;
  size_t pos = 0;
  while (pos < trustedComment.size()) {
    size_t start = trustedComment.find_first_not_of(" \t", pos);
    if (start == std::string::npos) break;
    size_t end = trustedComment.find_first_of(" \t", start);
    if (end == std::string::npos) end = trustedComment.size();
    if (trustedComment.compare(start, end - start, wanted) == 0) return true;
    pos = end;
  }
  return false;
}

namespace {

std::string verify(const std::string& archivePath, const ArchiveTrust& trust) {
  HttpAnswer answer = ondrelHttpGet(trust.signatureUrl);
  if (!answer.ok) return "its signature " + trust.signatureUrl + " could not be fetched (" + answer.error + ")";
  if (answer.status != 200)
    return "its signature " + trust.signatureUrl + " could not be fetched (HTTP " + std::to_string(answer.status) +
           ")";
  MinisignVerdict verdict = ondrelVerifyMinisign(archivePath, answer.body, trust.publicKey);
  if (!verdict.ok) return verdict.reason;
  // A genuine signature of another release must not pass for this one: the
  // trusted comment, which the key signed too, names the version.
  if (!ondrelTrustedCommentNamesVersion(verdict.trustedComment, trust.version))
    return "its signature is for another release (trusted comment “" + verdict.trustedComment +
           "”), not for version " + trust.version;
  logLine("[Update] signature ✓ key " + verdict.keyId + ", trusted comment “" + verdict.trustedComment + "”");
  return "";
}

}  // namespace

std::string ondrelCheckArchiveSignature(const std::string& archivePath, const ArchiveTrust& trust) {
  std::string reason = verify(archivePath, trust);
  if (!reason.empty()) logLine("[Update] signature check failed: " + reason);
  return reason;
}

std::string ondrelUnverifiedText(const std::string& reason) {
  return "The update could not be verified: " + reason +
         ". It was deleted without being installed. Your current version is unchanged.";
}
