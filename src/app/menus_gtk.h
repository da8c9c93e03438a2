#pragma once

#include <gtk/gtk.h>
#include <webkit2/webkit2.h>

#include <functional>

// What the menus and shortcuts act on. Each runs on the main thread.
struct MenuCommands {
  std::function<void()> quit;
  std::function<void()> about;
  std::function<void()> checkForUpdates;  // empty: no such item (a packaged copy)
  std::function<void()> reload;
  std::function<void()> toggleLog;
  std::function<bool()> logShown;
  std::function<WebKitWebView*()> webView;  // for the editing commands
};

// Adds the application's actions and their shortcuts to app, and returns the
// menu bar that shows them: hidden until F10 or a lone Alt press reveals it
// over the top of the web view, hidden again when it closes. Its shortcuts
// work while it is hidden. The commands live as long as the application.
GtkWidget* createMenus(GtkApplication* app, MenuCommands commands);

// The lone Alt press that reveals the menu bar is no shortcut: the window
// watches for it.
void revealMenuBarOnLoneAlt(GtkWindow* window, GtkWidget* menuBar);
