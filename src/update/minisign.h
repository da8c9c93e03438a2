#pragma once

#include <string>

// Checks a file against a minisign signature: Ed25519 over the file itself
// (legacy "Ed") or over its BLAKE2b-512 hash ("ED"), plus the global
// signature that binds the trusted comment to it. Blocks while it reads the
// whole file: call off the main thread.
struct MinisignVerdict {
  bool ok = false;
  std::string reason;          // why not, in words for a person; empty when ok
  std::string keyId;           // the signature's key id as minisign prints it, once parsed
  std::string trustedComment;  // once its signature has been checked
};

// keyLine: the base64 line of a minisign public key ("RW…"). signatureText:
// the whole .minisig file.
MinisignVerdict ondrelVerifyMinisign(const std::string& filePath, const std::string& signatureText,
                                     const std::string& keyLine);
