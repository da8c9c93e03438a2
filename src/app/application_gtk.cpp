#include "app/application_gtk.h"

#include <glib-unix.h>

#include <csignal>

#include "app/instance_prompt_gtk.h"
#include "app/menus_gtk.h"
#include "app/server_selection.h"
#include "base/json.h"
#include "base/log.h"
#include "base/main_thread.h"
#include "base/paths.h"
#include "base/server_address.h"
#include "bridge/exec_command.h"
#include "bridge/mcp_actions.h"
#include "build_config.h"
#include "webview/downloads_gtk.h"
#include "webview/file_inputs_gtk.h"
#include "webview/navigation_gtk.h"

namespace {

// Names the application on the session bus, where a second launch finds
// the first.
constexpr const char* kApplicationId = "app.ondrel.Ondrel";

Json jsonFromJsValue(JSCValue* value) {
  g_autofree gchar* text = jsc_value_to_json(value, 0);
  if (!text) return Json();
  return parseJson(text).value_or(Json());
}

// The address a launch names: its first argument, unless that is an option.
std::optional<std::string> serverArgumentOf(GApplicationCommandLine* commandLine) {
  int argc = 0;
  g_auto(GStrv) argv = g_application_command_line_get_arguments(commandLine, &argc);
  if (argc >= 2 && argv[1][0] != '-') return std::string(argv[1]);
  return std::nullopt;
}

}  // namespace

OndrelApplication::OndrelApplication()
    : app_(gtk_application_new(kApplicationId, G_APPLICATION_HANDLES_COMMAND_LINE)),
      updateHost_([this] { quit(); }),
      updater_(updateHost_) {
  g_signal_connect(app_, "startup", G_CALLBACK(onStartup), this);
  g_signal_connect(app_, "shutdown", G_CALLBACK(onShutdown), this);
  g_signal_connect(app_, "command-line", G_CALLBACK(onCommandLine), this);
}

OndrelApplication::~OndrelApplication() { g_object_unref(app_); }

int OndrelApplication::run(int argc, char** argv) {
  g_set_prgname("ondrel");
  return g_application_run(G_APPLICATION(app_), argc, argv);
}

void OndrelApplication::onStartup(GApplication*, OndrelApplication* self) {
  // MCP servers start before any window exists, and only in the first
  // launch; they are stopped at shutdown.
  self->mcp_.loadConfig();
  self->mcp_.watchConfigFile();

  auto quitOnSignal = +[](gpointer self) -> gboolean {
    static_cast<OndrelApplication*>(self)->quit();
    return G_SOURCE_CONTINUE;
  };
  g_unix_signal_add(SIGINT, quitOnSignal, self);
  g_unix_signal_add(SIGTERM, quitOnSignal, self);
}

void OndrelApplication::onShutdown(GApplication*, OndrelApplication* self) { self->mcp_.shutdown(); }

int OndrelApplication::onCommandLine(GApplication*, GApplicationCommandLine* commandLine, OndrelApplication* self) {
  auto serverArgument = serverArgumentOf(commandLine);
  if (!self->started_) {
    self->started_ = true;
    self->start(serverArgument);
  } else {
    self->relaunch(serverArgument);
  }
  return 0;
}

void OndrelApplication::quit() {
  if (quitRequested_) return;
  quitRequested_ = true;
  // A nested loop (the first-run prompt, a scheduled update's) ends first.
  if (gtk_main_level() > 0) gtk_main_quit();
  g_application_quit(G_APPLICATION(app_));
}

void OndrelApplication::start(const std::optional<std::string>& serverArgument) {
  // A packaged copy leaves a scheduled update to the self-updating copy that
  // scheduled it: the package manager updates this one.
  if (!ondrel::build::kPackaged) {
    // Before any menu or window: a successful update ends the process here;
    // a failed one comes back and the normal start goes on.
    updater_.applyScheduledUpdate();
    if (quitRequested_) return;  // a signal ended the update's own loop
  }
  auto server = ondrelResolveServer(serverArgument, ondrelConfigPath(), [] { return OndrelInstancePrompt().run(); });
  if (quitRequested_) return;
  if (!server) {
    quit();
    return;
  }
  createWindow(*server);
  if (ondrel::build::kPackaged) {
    logLine("[Update] installed from a package — updates come through the package manager");
  } else {
    runOnMainAfter(3.0, [this] { updater_.checkForUpdates(); });
  }
}

void OndrelApplication::relaunch(const std::optional<std::string>& serverArgument) {
  logLine("[App] launched again: showing the open window");
  // Still starting (the first-run prompt is open): that launch goes on.
  if (!window_) return;
  if (serverArgument) {
    if (auto server = ondrelCommandLineServer(*serverArgument)) loadServer(*server);
  }
  window_->present();
}

void OndrelApplication::createWindow(const std::string& server) {
  MenuCommands commands{
      .quit = [this] { quit(); },
      .about = [this] { updater_.showAbout(session_ ? std::optional(session_->serverUrl()) : std::nullopt); },
      .checkForUpdates = ondrel::build::kPackaged ? std::function<void()>() : [this] { updater_.checkForUpdates(); },
      .reload = [this] { window_->reload(); },
      .toggleLog = [this] { window_->logPanel().toggle(); },
      .logShown = [this] { return window_->logPanel().shown(); },
      .webView = [this] { return window_ ? window_->view() : nullptr; },
  };
  GtkWidget* menuBar = createMenus(app_, std::move(commands));
  WebKitUserContentManager* content = webkit_user_content_manager_new();
  window_ = std::make_unique<MainWindow>(app_, content, menuBar, [this] { quit(); });
  g_object_unref(content);
  revealMenuBarOnLoneAlt(window_->window(), menuBar);
  connectWebView();
  loadServer(server);
}

void OndrelApplication::connectWebView() {
  WebKitWebView* view = window_->view();
  WebKitUserContentManager* content = webkit_web_view_get_user_content_manager(view);
  g_signal_connect(content, "script-message-received::ondrel",
                   G_CALLBACK(+[](WebKitUserContentManager*, WebKitJavascriptResult* result, OndrelApplication* self) {
                     auto envelope = jsonFromJsValue(webkit_javascript_result_get_js_value(result));
                     if (auto body = self->session_->gate().admit(std::move(envelope)))
                       self->session_->bridge().didReceiveScriptMessage(std::move(*body));
                   }),
                   this);
  webkit_user_content_manager_register_script_message_handler(content, "ondrel");
  g_signal_connect(view, "load-changed", G_CALLBACK(+[](WebKitWebView*, WebKitLoadEvent event, OndrelApplication* self) {
                     if (event == WEBKIT_LOAD_STARTED) self->loadFailed_ = false;
                     // A failed load also ends in FINISHED; only real page loads are probed.
                     if (event == WEBKIT_LOAD_FINISHED && !self->loadFailed_)
                       self->session_->bridge().pageDidFinishLoading();
                   }),
                   this);
  g_signal_connect(view, "load-failed",
                   G_CALLBACK(+[](WebKitWebView*, WebKitLoadEvent, gchar*, GError*, OndrelApplication* self) {
                     self->loadFailed_ = true;
                     return FALSE;
                   }),
                   this);
  connectNavigationPolicy(view, {.referenceHost = [this] { return session_->referenceHost(); },
                                 .openExternally = [this](const std::string& url) {
                                   session_->bridge().openExternally(url);
                                 }});
  connectDownloads(webkit_web_view_get_context(view), window_->window());
  connectFileInputs(view, window_->window());
}

void OndrelApplication::loadServer(const std::string& server) {
  // Same origin: the session, with its work under way, carries on.
  if (!session_ || session_->gate().origin() != ondrelOriginOf(server)) {
    if (session_) formerSessions_.push_back(std::move(session_));
    session_ = std::make_unique<InstanceSession>(*window_, server);
    registerExecAction(session_->bridge());
    registerMcpActions(session_->bridge(), mcp_);
    session_->installScripts(webkit_web_view_get_user_content_manager(window_->view()));
  }
  window_->show(server);
}
