#include "update/begin_update.h"

#include <glib.h>
#include <sys/stat.h>

#include <atomic>
#include <memory>

#include "base/files.h"
#include "base/log.h"
#include "base/main_thread.h"
#include "update/downloader.h"
#include "update/update_host.h"
#include "update/update_paths.h"
#include "update/updater.h"

namespace {

// Progress arrives for every chunk written; the window needs only the latest
// value, so at most one hand-off to the main thread is in flight.
struct ProgressRelay {
  std::atomic<double> fraction{0.0};
  std::atomic<bool> queued{false};
};

void relayProgress(UpdateHost& host, const std::shared_ptr<ProgressRelay>& relay, double value) {
  relay->fraction.store(value);
  if (relay->queued.exchange(true)) return;
  runOnMain([&host, relay] {
    relay->queued.store(false);
    host.setProgress(relay->fraction.load());
  });
}

}  // namespace

std::string ondrelUpdateDestination(const std::string& updatesDir, const std::string& zipUrl) {
  // The path alone: a query or fragment is no part of the file's name.
  g_autoptr(GUri) uri = g_uri_parse(zipUrl.c_str(), G_URI_FLAGS_ENCODED, nullptr);
  std::string path = uri ? g_uri_get_path(uri) : std::string();
  std::string name = path.substr(path.rfind('/') + 1);
  // "." and ".." would name the folders themselves, not a file in them.
  if (name.empty() || name == "." || name == "..") name = "Ondrel.zip";
  return updatesDir + "/" + name;
}

std::string ondrelProgressLabel(const std::string& version) {
  return version.empty() ? std::string("Downloading update…") : "Updating to " + version + "…";
}

void Updater::beginUpdate(const std::string& version, const std::string& zipUrl) {
  std::string updates = ondrelUpdatesDir();
  makeDirectories(updates);
  std::string dest = ondrelUpdateDestination(updates, zipUrl);
  host_.showProgress(ondrelProgressLabel(version));

  auto relay = std::make_shared<ProgressRelay>();
  OndrelDownloader::startWithURL(
      zipUrl, dest, [this, relay](double fraction) { relayProgress(host_, relay, fraction); },
      [this, dest, trust = ondrelArchiveTrust(version, zipUrl)](const std::optional<std::string>& error) {
        runOnMain([this, dest, trust, error] { downloadFinished(dest, trust, error); });
      });
}

void Updater::downloadFinished(const std::string& dest, const ArchiveTrust& trust,
                               const std::optional<std::string>& error) {
  if (error) {
    std::string reason = error->empty() ? std::string("unknown error") : *error;
    logLine("[Update] download failed: " + reason);
    failUpdate("Could not download the update:\n" + reason + "\n\nYour current version is unchanged.");
    return;
  }
  struct stat info {};
  long long size = stat(dest.c_str(), &info) == 0 ? static_cast<long long>(info.st_size) : 0;
  logLine("[Update] downloaded " + dest + " (" + std::to_string(size) + " bytes)");
  installUpdate(dest, trust);
}
