#pragma once

// Key pairs and signatures made by the minisign tool itself, so the
// verifier is checked against the reference implementation, not against
// its own output. Keys have no password (-W).

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "test_files.h"

class MinisignTool {
 public:
  // The n-th line (from 0) of a text, without its line end.
  static std::string lineOf(const std::string& text, size_t index) {
    size_t start = 0;
    for (size_t i = 0; i < index; ++i) start = text.find('\n', start) + 1;
    return text.substr(start, text.find('\n', start) - start);
  }

  // Makes the key pair `name` (once).
  void makeKey(const std::string& name) {
    run("minisign -G -W -f -p '" + path(name) + ".pub' -s '" + path(name) + ".key' >/dev/null");
  }
  // The base64 line of the public key, as a build is configured with.
  std::string keyLine(const std::string& name) const { return lineOf(readText(path(name) + ".pub"), 1); }
  // The key id as minisign prints it in the public key's comment.
  std::string keyId(const std::string& name) const {
    return lineOf(readText(path(name) + ".pub"), 0).substr(std::string("untrusted comment: minisign public key ").size());
  }
  // The .minisig text for file; flags "-l" makes a legacy signature.
  std::string sign(const std::string& key, const std::string& file, const std::string& comment,
                   const std::string& flags = "") {
    const std::string out = path("out.minisig");
    run("minisign -S " + flags + " -s '" + path(key) + ".key' -m '" + file + "' -x '" + out + "' -t '" + comment +
        "' </dev/null >/dev/null");
    return readText(out);
  }

 private:
  std::string path(const std::string& name) const { return (dir_.path() / name).string(); }
  static void run(const std::string& command) { ASSERT_EQ(std::system(command.c_str()), 0) << command; }
  TempDir dir_;
};
