#pragma once

#include <functional>
#include <string>

#include "bridge/bridge_gate.h"

class Updater;

// Builds the main window (web view, hidden log panel, drawn buttons, hidden
// menu bar) without showing it; sets gMainWindow and gWebView. The gate's
// scripts decide which documents may reach the bridge.
void createMainWindow(const BridgeGate& gate, Updater& updater);

// Loads the address in the main web view and brings the window up.
void showMainWindow(const std::string& serverUrl);

// The one way out: menu Quit, Ctrl+Q, the close button, the window
// manager's close and SIGINT/SIGTERM all end here, so the quit hooks always
// run before the main loop stops.
void ondrelQuit();
void addQuitHook(std::function<void()> hook);
// True once the quit path ran (a signal may arrive before the main loop).
bool ondrelQuitRequested();

void reloadWebView();
