#pragma once

#include <string>

// What an archive must prove before it is unpacked. An empty publicKey
// means this copy was built without one: archives are not checked.
struct ArchiveTrust {
  std::string publicKey;     // the base64 line of a minisign public key
  std::string version;       // the version the manifest offered
  std::string signatureUrl;  // where the archive's .minisig lives
};

// True when this copy was built with an update key.
bool ondrelUpdatesAreSigned();

// The trust of this build for an archive offered as version at zipUrl.
ArchiveTrust ondrelArchiveTrust(const std::string& version, const std::string& zipUrl);

// <zip>.minisig beside the archive (before any query or fragment).
std::string ondrelSignatureUrl(const std::string& zipUrl);

// True when a whitespace-separated field of the trusted comment is
// "version:<version>".
bool ondrelTrustedCommentNamesVersion(const std::string& trustedComment, const std::string& version);

// Fetches the signature and checks the archive against it. Returns "" when
// the archive may be unpacked, otherwise why not (already logged). Blocks:
// call off the main thread.
std::string ondrelCheckArchiveSignature(const std::string& archivePath, const ArchiveTrust& trust);

// The "Update Failed" text for an archive that failed its check.
std::string ondrelUnverifiedText(const std::string& reason);
