#include "update/updater.h"

#include "base/log.h"
#include "base/main_thread.h"
#include "base/settings.h"
#include "update/http_get.h"
#include "update/pending_update.h"
#include "update/update_host.h"
#include "update/update_paths.h"
#include "update/update_transfer.h"
#include "update/version.h"

void Updater::checkForUpdates() {
  if (!ondrelUpdatesEnabled()) {
    logLine("[Update] auto-update disabled (updateEnabled=false) — skipping");
    return;
  }
  auto url = ondrelUpdateManifestURL();
  if (!url) {
    logLine("[Update] no update URL configured — skipping check");
    return;
  }
  if (auto refusal = ondrelUpdateURLRefusal(*url)) {
    logLine("[Update] " + *refusal + " — skipping check");
    return;
  }
  logLine("[Update] checking " + *url);
  if (!ondrelUpdatesAreSigned() && !toldUnsigned_) {
    toldUnsigned_ = true;
    logLine("[Update] updates are not signature-checked: this copy was built without an update key");
  }
  runInBackground([this, manifestUrl = *url] {
    HttpAnswer answer = ondrelHttpGet(manifestUrl);
    auto offer = ondrelEvaluateManifest(manifestUrl, answer.ok, answer.status, answer.body, ondrelCurrentVersion());
    if (offer) runOnMain([this, offer = *offer] { offerUpdate(offer); });
  });
}

void Updater::offerUpdate(const UpdateOffer& offer) {
  host_.askToUpdate(offer.remote, offer.current, [this, offer](UpdateHost::Choice choice) {
    switch (choice) {
      case UpdateHost::Choice::UpdateNow:
        beginUpdate(offer.remote, offer.zipUrl);
        break;
      case UpdateHost::Choice::NextRestart:
        ondrelWritePendingUpdate(ondrelPendingUpdatePath(), offer.remote, offer.zipUrl);
        logLine("[Update] scheduled version " + offer.remote + " for next restart");
        break;
      case UpdateHost::Choice::Later:
        logLine("[Update] deferred by user");
        break;
    }
  });
}

void Updater::failUpdate(const std::string& informativeText) {
  host_.hideProgress();
  host_.showFailure(informativeText, [this] {
    if (updateIsDeferred_) host_.stopEventLoop();
  });
}
