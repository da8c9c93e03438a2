#pragma once

#include <optional>
#include <string>

#include "update/manifest.h"
#include "update/update_signature.h"

class UpdateHost;

// The self-update of this copy: the check, the user's choice, the download,
// the install and the scheduled update at start-up. Main thread; the
// network and file work runs in the background and comes back to the main
// thread. The app keeps one for its whole run; it must outlive every update
// it starts, and so must the host.
class Updater {
 public:
  explicit Updater(UpdateHost& host) : host_(host) {}
  Updater(const Updater&) = delete;
  Updater& operator=(const Updater&) = delete;

  UpdateHost& host() { return host_; }

  // Asks the update service whether a newer build exists and, when there is
  // one, the user what to do. Quiet: every other outcome is a log line.
  void checkForUpdates();
  // The user's answer to an offer.
  void offerUpdate(const UpdateOffer& offer);
  // Shows the progress window and downloads the archive into the updates
  // folder; a finished download goes on to the install step. version may be
  // empty.
  void beginUpdate(const std::string& version, const std::string& zipUrl);
  // The install step for a downloaded archive: the file work in the
  // background, then either the failure alert or the swap script's launch
  // and the end of the process.
  void installUpdate(const std::string& archivePath, const ArchiveTrust& trust);
  // Start-up: when an update is pending, removes the record, downloads and
  // installs the update inside an event loop of its own. Returns when there
  // was nothing to do or the update failed; a successful update ends the
  // process.
  void applyScheduledUpdate();
  // Ends an update the user started: hides the progress window, shows
  // "Update Failed" with the text and, once it is closed, stops the event
  // loop when the update was the scheduled one.
  void failUpdate(const std::string& informativeText);

  // The About panel for the running build.
  void showAbout(const std::optional<std::string>& serverUrl);

  // Set only on the start-up path that applies a scheduled update.
  bool isDeferred() const { return updateIsDeferred_; }

 private:
  void downloadFinished(const std::string& dest, const ArchiveTrust& trust, const std::optional<std::string>& error);

  UpdateHost& host_;
  bool updateIsDeferred_ = false;
  bool toldUnsigned_ = false;  // the "not signature-checked" line is logged once
};
