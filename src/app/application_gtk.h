#pragma once

#include <gtk/gtk.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "app/instance_session_gtk.h"
#include "app/main_window_gtk.h"
#include "mcp/client_mcp.h"
#include "update/update_host_gtk.h"
#include "update/updater.h"

// The running application: one per user session. A second launch hands its
// command line to the first and ends; the first raises its window and, given
// an address, loads it there. Owns everything that lives as long as the
// process; main thread only.
class OndrelApplication {
 public:
  OndrelApplication();
  ~OndrelApplication();
  OndrelApplication(const OndrelApplication&) = delete;
  OndrelApplication& operator=(const OndrelApplication&) = delete;

  // Runs until the application quits; the process's exit status.
  int run(int argc, char** argv);

  // The one way out: menu Quit, Ctrl+Q, the close button, the window
  // manager's close and SIGINT/SIGTERM all end here.
  void quit();

 private:
  static void onStartup(GApplication* app, OndrelApplication* self);
  static void onShutdown(GApplication* app, OndrelApplication* self);
  static int onCommandLine(GApplication* app, GApplicationCommandLine* commandLine, OndrelApplication* self);

  // The first launch: a scheduled update, the address, then the window.
  void start(const std::optional<std::string>& serverArgument);
  // A later launch, in this process.
  void relaunch(const std::optional<std::string>& serverArgument);
  void createWindow(const std::string& server);
  void connectWebView();
  void loadServer(const std::string& server);

  GtkApplication* app_;
  ClientMcp mcp_;
  GtkUpdateHost updateHost_;
  Updater updater_;
  bool started_ = false;
  bool quitRequested_ = false;
  std::unique_ptr<MainWindow> window_;
  std::unique_ptr<InstanceSession> session_;
  // Sessions of instances loaded before; their work may still be under way.
  std::vector<std::unique_ptr<InstanceSession>> formerSessions_;
  bool loadFailed_ = false;
};
