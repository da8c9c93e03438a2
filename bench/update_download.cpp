// Drives the updater's downloader once: URL in, file out, and prints what it
// took as one JSON line. bench/update_download.py runs it against a local
// server and compares it with curl and with a plain disk copy.

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <filesystem>
#include <mutex>
#include <string>

#include "update/downloader.h"

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: %s URL DEST\n", argv[0]);
    return 2;
  }
  std::mutex mutex;
  std::condition_variable finished;
  bool done = false;
  std::optional<std::string> failure;
  long progressCalls = 0;

  auto start = std::chrono::steady_clock::now();
  OndrelDownloader::startWithURL(
      argv[1], argv[2], [&](double) { ++progressCalls; },
      [&](const std::optional<std::string>& error) {
        std::lock_guard lock(mutex);
        failure = error;
        done = true;
        finished.notify_one();
      });
  std::unique_lock lock(mutex);
  finished.wait(lock, [&] { return done; });
  double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();

  if (failure) {
    std::fprintf(stderr, "download failed: %s\n", failure->c_str());
    return 1;
  }
  auto bytes = std::filesystem::file_size(argv[2]);
  std::printf("{\"bytes\": %llu, \"seconds\": %.6f, \"progress_calls\": %ld}\n",
              static_cast<unsigned long long>(bytes), seconds, progressCalls);
  return 0;
}
