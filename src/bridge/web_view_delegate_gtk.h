#pragma once

#include <gtk/gtk.h>
#include <webkit2/webkit2.h>

#include <string>

#include "bridge/bridge.h"

// Connects the web view's signals to the bridge: page messages on the
// "ondrel" handler, the load probe, the navigation and new-window policy,
// downloads with their save dialog, and file inputs. Dialogs are attached to
// window. referenceHost is the loaded server's host.
void connectWebViewDelegate(WebKitWebView* view, GtkWindow* window, Bridge& bridge, const std::string& referenceHost);
