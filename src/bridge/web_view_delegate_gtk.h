#pragma once

#include <gtk/gtk.h>
#include <webkit2/webkit2.h>

#include <string>

#include "bridge/bridge.h"
#include "bridge/bridge_gate.h"

// Connects the web view's signals to the bridge: page messages on the
// "ondrel" handler (those the gate admits; gate and bridge outlive the
// view), the load probe, the navigation and new-window policy,
// downloads with their save dialog, and file inputs. Dialogs are attached to
// window. referenceHost is the loaded server's host.
void connectWebViewDelegate(WebKitWebView* view, GtkWindow* window, Bridge& bridge, const BridgeGate& gate,
                            const std::string& referenceHost);
