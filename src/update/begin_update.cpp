#include "update/begin_update.h"

#include <sys/stat.h>

#include <atomic>
#include <memory>
#include <thread>

#include "base/files.h"
#include "base/log.h"
#include "base/main_thread.h"
#include "update/downloader.h"
#include "update/install.h"
#include "update/update_host.h"
#include "update/update_paths.h"

namespace {

// Progress arrives for every chunk written; the window needs only the latest
// value, so at most one hand-off to the main thread is in flight.
struct ProgressRelay {
  std::atomic<double> fraction{0.0};
  std::atomic<bool> queued{false};
};

void relayProgress(const std::shared_ptr<ProgressRelay>& relay, double value) {
  relay->fraction.store(value);
  if (relay->queued.exchange(true)) return;
  runOnMain([relay] {
    relay->queued.store(false);
    updateHost().setProgress(relay->fraction.load());
  });
}

void downloadFinished(const std::string& dest, const ArchiveTrust& trust, const std::optional<std::string>& error) {
  if (error) {
    std::string reason = error->empty() ? std::string("unknown error") : *error;
    logLine("[Update] download failed: " + reason);
    ondrelFailUpdate("Could not download the update:\n" + reason + "\n\nYour current version is unchanged.");
    return;
  }
  struct stat info {};
  long long size = stat(dest.c_str(), &info) == 0 ? static_cast<long long>(info.st_size) : 0;
  logLine("[Update] downloaded " + dest + " (" + std::to_string(size) + " bytes)");
  std::string executable = updateHost().runningExecutable();
  std::thread([dest, executable, trust] { ondrelInstallUpdate(dest, executable, trust); }).detach();
}

}  // namespace

std::string ondrelUpdateDestination(const std::string& updatesDir, const std::string& zipUrl) {
  size_t slash = zipUrl.rfind('/');
  std::string name = slash == std::string::npos ? zipUrl : zipUrl.substr(slash + 1);
  // "." and ".." would name the folders themselves, not a file in them.
  if (name.empty() || name == "." || name == "..") name = "Ondrel.zip";
  return updatesDir + "/" + name;
}

std::string ondrelProgressLabel(const std::string& version) {
  return version.empty() ? std::string("Downloading update…") : "Updating to " + version + "…";
}

void ondrelBeginUpdate(const std::string& version, const std::string& zipUrl) {
  std::string updates = ondrelUpdatesDir();
  makeDirectories(updates);
  std::string dest = ondrelUpdateDestination(updates, zipUrl);
  updateHost().showProgress(ondrelProgressLabel(version));

  auto relay = std::make_shared<ProgressRelay>();
  OndrelDownloader::startWithURL(
      zipUrl, dest, [relay](double fraction) { relayProgress(relay, fraction); },
      [dest, trust = ondrelArchiveTrust(version, zipUrl)](const std::optional<std::string>& error) {
        runOnMain([dest, trust, error] { downloadFinished(dest, trust, error); });
      });
}
