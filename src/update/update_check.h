#pragma once

#include "update/manifest.h"

// Asks the update service whether a newer build exists and, when there is
// one, the user what to do. Quiet: every other outcome is a log line. Main
// thread; the request runs in the background.
void ondrelCheckForUpdates();

// The user's answer to an offer (main thread).
void ondrelOfferUpdate(const UpdateOffer& offer);
