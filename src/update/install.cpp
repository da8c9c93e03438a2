#include "update/install.h"

#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <optional>

#include "base/files.h"
#include "base/log.h"
#include "base/main_thread.h"
#include "update/bundle_search.h"
#include "update/safe_extract.h"
#include "update/swap_script.h"
#include "update/update_host.h"
#include "update/update_paths.h"
#include "update/updater.h"
#include "update/zip_signature.h"

const char* const kNotInstalledText =
    "This copy of Ondrel does not run from an installed bundle, so it cannot replace itself. "
    "Your current version is unchanged.";

std::string ondrelNotAZipText(unsigned long long length) {
  return "The downloaded file (" + std::to_string(length) +
         " bytes) is not a valid zip archive. It may be an error page from the server. "
         "Your current version is unchanged.";
}

std::string ondrelNoBundleText(int unpackStatus) {
  return "The downloaded archive did not contain a Ondrel.AppDir bundle to install (unpack exit " +
         std::to_string(unpackStatus) +
         "). Your current version is unchanged. See the log panel (View → Show Log) for details.";
}

std::string ondrelUnstartableBundleText(const std::string& defect) {
  return "The downloaded Ondrel.AppDir could not be started: " + defect +
         ". It was deleted without being installed. Your current version is unchanged.";
}

InstallPlan ondrelPrepareInstall(const std::string& archivePath, const std::string& runningExecutable,
                                 const ArchiveTrust& trust) {
  InstallPlan plan;
  const std::string updates = ondrelUpdatesDir();
  makeDirectories(updates);

  ArchiveHead head = ondrelReadArchiveHead(archivePath);
  bool isZip = ondrelHasZipSignature(head.head, head.length);
  logLine("[Update] verify " + std::filesystem::path(archivePath).filename().string() + " (" +
          std::to_string(head.length) + " bytes, magic " + (isZip ? "zip ✓" : "NOT A ZIP") + ")");
  if (!isZip) {
    plan.failure = ondrelNotAZipText(head.length);
    return plan;
  }
  if (!trust.publicKey.empty()) {
    std::string reason = ondrelCheckArchiveSignature(archivePath, trust);
    if (!reason.empty()) {
      // Nothing of an archive that failed its check stays to be opened later.
      std::remove(archivePath.c_str());
      plan.failure = ondrelUnverifiedText(reason);
      return plan;
    }
  }

  const std::string stage = ondrelStageDir();
  std::error_code ec;
  std::filesystem::remove_all(stage, ec);
  makeDirectories(stage);

  ExtractResult unpacked = ondrelExtractArchive(archivePath, stage);
  logLine("[Update] unpack exited " + std::to_string(unpacked.status) + "\n" + unpacked.output);

  std::optional<std::string> bundle = ondrelFindBundle(stage);
  if (unpacked.status != 0 || !bundle) {
    plan.failure = ondrelNoBundleText(unpacked.status);
    return plan;
  }
  logLine("[Update] extracted bundle at " + *bundle);
  if (std::string defect = ondrelBundleDefect(*bundle); !defect.empty()) {
    logLine("[Update] refused bundle " + *bundle + ": " + defect);
    // Swapped in, it would leave no app that starts; nothing of it stays.
    std::filesystem::remove_all(stage, ec);
    std::remove(archivePath.c_str());
    plan.failure = ondrelUnstartableBundleText(defect);
    return plan;
  }

  auto running = ondrelBundleOfExecutable(runningExecutable);
  if (!running) {
    plan.failure = kNotInstalledText;
    return plan;
  }
  plan.runningBundle = *running;
  plan.scriptPath = ondrelSwapScriptPath();
  writeFileAtomically(plan.scriptPath, ondrelSwapScriptText(*running, *bundle, ondrelInstallLogPath(), getpid()));
  return plan;
}

void Updater::installUpdate(const std::string& archivePath, const ArchiveTrust& trust) {
  runInBackground([this, archivePath, executable = host_.runningExecutable(), trust] {
    InstallPlan plan = ondrelPrepareInstall(archivePath, executable, trust);
    runOnMain([this, plan] {
      if (!plan.failure.empty()) {
        failUpdate(plan.failure);
        return;
      }
      host_.launchSwapScript(plan.scriptPath);
      logLine("[Update] swap started; relaunching " + plan.runningBundle);
      host_.hideProgress();
      host_.exitProcess(0);
    });
  });
}
