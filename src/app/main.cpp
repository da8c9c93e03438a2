#include <glib-unix.h>
#include <gtk/gtk.h>

#include <csignal>
#include <iostream>

#include "app/bridge_host_gtk.h"
#include "app/command_line.h"
#include "app/draggable_web_view_gtk.h"
#include "app/instance_prompt_gtk.h"
#include "app/main_window_gtk.h"
#include "app/server_selection.h"
#include "app/ui_globals_gtk.h"
#include "base/log.h"
#include "base/main_thread.h"
#include "base/system_log.h"
#include "base/server_address.h"
#include "bridge/bridge.h"
#include "bridge/bridge_gate.h"
#include "bridge/exec_command.h"
#include "bridge/mcp_actions.h"
#include "bridge/web_view_delegate_gtk.h"
#include "build_config.h"
#include "mcp/client_mcp.h"
#include "update/update_host_gtk.h"
#include "update/updater.h"

int main(int argc, char** argv) {
  installSystemLogWriter();
  // A child's closed pipe must never kill the app.
  std::signal(SIGPIPE, SIG_IGN);

  if (auto status = ondrelRunCommandLine({argv + (argc > 0), argv + argc}, std::cout, std::cerr)) return *status;

  // The first argument, unless it is an option, may be the server address.
  if (argc >= 2 && argv[1][0] != '-') gCmdlineServer = std::string(argv[1]);

  g_set_prgname("ondrel");
  gtk_init(&argc, &argv);

  // MCP servers start before any window exists; they are stopped on the one
  // quit path.
  ClientMcp mcp;
  mcp.loadConfig();
  mcp.watchConfigFile();
  addQuitHook([&mcp] { mcp.shutdown(); });

  auto quitOnSignal = +[](gpointer) -> gboolean {
    ondrelQuit();
    return G_SOURCE_CONTINUE;
  };
  g_unix_signal_add(SIGINT, quitOnSignal, nullptr);
  g_unix_signal_add(SIGTERM, quitOnSignal, nullptr);

  GtkUpdateHost updateHost(ondrelQuit);
  Updater updater(updateHost);
  // A packaged copy leaves a scheduled update to the self-updating copy that
  // scheduled it: the package manager updates this one.
  if (!ondrel::build::kPackaged) {
    // Before any menu or window: a successful update ends the process here;
    // a failed one comes back and the normal start goes on.
    updater.applyScheduledUpdate();
    if (ondrelQuitRequested()) return 0;  // a signal ended the update's own loop
  }

  const auto& server = ondrelServerURL([] { return OndrelInstancePrompt().run(); });
  if (!server) {
    ondrelQuit();  // runs the quit hooks, so the servers end with us
    return 0;
  }

  // Like the window, these live until exit.
  auto* gate = new BridgeGate(ondrelOriginOf(*server));
  createMainWindow(*gate, updater);
  auto* host = new GtkBridgeHost(GTK_WINDOW(gMainWindow), gWebView->view(), originGuardExpression(gate->origin()));
  auto* bridge = new Bridge(*host, gate->origin());
  registerExecAction(*bridge);
  registerMcpActions(*bridge, mcp);
  connectWebViewDelegate(gWebView->view(), GTK_WINDOW(gMainWindow), *bridge, *gate, ondrelRawHostOf(*server));
  showMainWindow(*server);

  if (ondrel::build::kPackaged) {
    logLine("[Update] installed from a package — updates come through the package manager");
  } else {
    runOnMainAfter(3.0, [&updater] { updater.checkForUpdates(); });
  }

  gtk_main();
  return 0;
}
