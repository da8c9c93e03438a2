#pragma once

#include <webkit2/webkit2.h>

// The web context of the main view: cookies and storage survive restarts
// (people stay logged in). A new reference.
WebKitWebContext* ondrelPersistentWebContext();
