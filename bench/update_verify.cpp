// Times the updater's signature check of one file, as the install step runs
// it right after a download. bench/update_download.py runs it on the file
// it has just downloaded, with a prehashed and a legacy signature.

#include <chrono>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

#include "update/minisign.h"

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fprintf(stderr, "usage: %s FILE SIGNATURE_FILE PUBLIC_KEY_LINE\n", argv[0]);
    return 2;
  }
  std::ifstream in(argv[2], std::ios::binary);
  std::ostringstream signature;
  signature << in.rdbuf();

  auto start = std::chrono::steady_clock::now();
  MinisignVerdict verdict = ondrelVerifyMinisign(argv[1], signature.str(), argv[3]);
  double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  if (!verdict.ok) {
    std::fprintf(stderr, "not verified: %s\n", verdict.reason.c_str());
    return 1;
  }
  std::printf("{\"seconds\": %.6f}\n", seconds);
  return 0;
}
