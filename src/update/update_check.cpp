#include "update/update_check.h"

#include <thread>

#include "base/log.h"
#include "base/main_thread.h"
#include "base/settings.h"
#include "update/begin_update.h"
#include "update/http_get.h"
#include "update/pending_update.h"
#include "update/update_transfer.h"
#include "update/update_host.h"
#include "update/update_paths.h"
#include "update/update_signature.h"
#include "update/version.h"

void ondrelCheckForUpdates() {
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
  static bool toldUnsigned = false;
  if (!ondrelUpdatesAreSigned() && !toldUnsigned) {
    toldUnsigned = true;
    logLine("[Update] updates are not signature-checked: this copy was built without an update key");
  }
  std::thread([manifestUrl = *url] {
    HttpAnswer answer = ondrelHttpGet(manifestUrl);
    auto offer = ondrelEvaluateManifest(manifestUrl, answer.ok, answer.status, answer.body, ondrelCurrentVersion());
    if (offer) runOnMain([offer = *offer] { ondrelOfferUpdate(offer); });
  }).detach();
}

void ondrelOfferUpdate(const UpdateOffer& offer) {
  updateHost().askToUpdate(offer.remote, offer.current, [offer](UpdateHost::Choice choice) {
    switch (choice) {
      case UpdateHost::Choice::UpdateNow:
        ondrelBeginUpdate(offer.remote, offer.zipUrl);
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
