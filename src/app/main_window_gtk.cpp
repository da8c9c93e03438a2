#include "app/main_window_gtk.h"

#include <gtk/gtk.h>
#include <webkit2/webkit2.h>

#include <cstdio>
#include <vector>

#include "app/draggable_web_view_gtk.h"
#include "app/log_panel_gtk.h"
#include "app/menus_gtk.h"
#include "app/traffic_light_button_gtk.h"
#include "app/ui_globals_gtk.h"
#include "base/log.h"

GtkWidget* gMainWindow = nullptr;
DraggableWebView* gWebView = nullptr;
GtkTextView* gLog = nullptr;
GtkWidget* gLogScroll = nullptr;
std::vector<TrafficLightButton*> gTrafficLights;

namespace {

constexpr int kWidth = 1260;
constexpr int kHeight = 900;
constexpr double kTopInset = 28.0;

std::vector<std::function<void()>>& quitHooks() {
  static std::vector<std::function<void()>> hooks;
  return hooks;
}

bool gFullscreen = false;

void addDocumentStartScript(WebKitUserContentManager* content, const std::string& source,
                            WebKitUserContentInjectedFrames frames) {
  WebKitUserScript* script = webkit_user_script_new(source.c_str(), frames, WEBKIT_USER_SCRIPT_INJECT_AT_DOCUMENT_START,
                                                    nullptr, nullptr);
  webkit_user_content_manager_add_script(content, script);
  webkit_user_script_unref(script);
}

WebKitUserContentManager* createContentManager(const BridgeGate& gate) {
  WebKitUserContentManager* content = webkit_user_content_manager_new();
  char host[96];
  std::snprintf(host, sizeof host, "window.__ondrelHost = { platform: 'linux', topInset: %.0f };", kTopInset);
  addDocumentStartScript(content, gate.topFrameScript(host), WEBKIT_USER_CONTENT_INJECT_TOP_FRAME);
  addDocumentStartScript(content, gate.otherFrameScript(), WEBKIT_USER_CONTENT_INJECT_ALL_FRAMES);
  return content;
}

void addTrafficLights(GtkOverlay* overlay, GtkWindow* window) {
  struct Button {
    Rgba color;
    int kind;
    const char* title;
    std::function<void()> action;
  };
  const Button buttons[] = {
      {{255 / 255.0, 59 / 255.0, 48 / 255.0, 1}, TrafficLightButton::Close, "Close", [] { ondrelQuit(); }},
      {{255 / 255.0, 204 / 255.0, 0, 1}, TrafficLightButton::Minimize, "Minimize",
       [window] { gtk_window_iconify(window); }},
      {{40 / 255.0, 205 / 255.0, 65 / 255.0, 1}, TrafficLightButton::Fullscreen, "Fullscreen",
       [window] {
         if (gFullscreen) {
           gtk_window_unfullscreen(window);
         } else {
           gtk_window_fullscreen(window);
         }
       }},
  };
  gTrafficLights.reserve(3);
  int index = 0;
  for (const Button& def : buttons) {
    auto* button = new TrafficLightButton(def.color, def.kind, def.title, def.action);
    GtkWidget* widget = button->widget();
    // Centred 22 px below the top edge, 18 + 24 × index from the left.
    gtk_widget_set_halign(widget, GTK_ALIGN_START);
    gtk_widget_set_valign(widget, GTK_ALIGN_START);
    gtk_widget_set_margin_start(widget, 18 + 24 * index);
    gtk_widget_set_margin_top(widget, 22 - 10);
    gtk_overlay_add_overlay(overlay, widget);
    gTrafficLights.push_back(button);
    ++index;
  }
}

}  // namespace

void addQuitHook(std::function<void()> hook) { quitHooks().push_back(std::move(hook)); }

namespace {
bool gQuitRequested = false;
}  // namespace

bool ondrelQuitRequested() { return gQuitRequested; }

void ondrelQuit() {
  if (gQuitRequested) return;
  gQuitRequested = true;
  for (auto& hook : quitHooks()) hook();
  if (gtk_main_level() > 0) gtk_main_quit();
}

void reloadWebView() {
  logLine("[Reload] reloading webview");
  if (gWebView) webkit_web_view_reload(gWebView->view());
}

void createMainWindow(const BridgeGate& gate, Updater& updater) {
  GtkWidget* window = gtk_window_new(GTK_WINDOW_TOPLEVEL);
  gMainWindow = window;
  gtk_window_set_title(GTK_WINDOW(window), "Ondrel");
  gtk_window_set_default_size(GTK_WINDOW(window), kWidth, kHeight);
  // No window-manager frame: the web view's top strip, the drawn buttons and
  // the resize band along the edges replace it.
  gtk_window_set_decorated(GTK_WINDOW(window), FALSE);
  gtk_window_set_position(GTK_WINDOW(window), GTK_WIN_POS_CENTER);
  g_signal_connect(window, "delete-event", G_CALLBACK(+[] {
                     ondrelQuit();
                     return TRUE;
                   }),
                   nullptr);
  g_signal_connect(window, "window-state-event", G_CALLBACK(+[](GtkWidget*, GdkEventWindowState* event) {
                     gFullscreen = event->new_window_state & GDK_WINDOW_STATE_FULLSCREEN;
                     return FALSE;
                   }),
                   nullptr);
  // Inactive windows draw their buttons faded.
  g_signal_connect(window, "notify::is-active", G_CALLBACK(+[] {
                     for (auto* button : gTrafficLights) button->redraw();
                   }),
                   nullptr);

  GtkWidget* overlay = gtk_overlay_new();
  GtkWidget* stack = gtk_box_new(GTK_ORIENTATION_VERTICAL, 0);

  WebKitUserContentManager* content = createContentManager(gate);
  gWebView = new DraggableWebView(content);
  g_object_unref(content);
  gtk_box_pack_start(GTK_BOX(stack), gWebView->widget(), TRUE, TRUE, 0);
  gtk_box_pack_start(GTK_BOX(stack), createLogPanel(), FALSE, FALSE, 0);
  gtk_container_add(GTK_CONTAINER(overlay), stack);

  addTrafficLights(GTK_OVERLAY(overlay), GTK_WINDOW(window));
  GtkWidget* menuBar = createMenuBar(updater);
  gtk_overlay_add_overlay(GTK_OVERLAY(overlay), menuBar);
  installKeyboardShortcuts(GTK_WINDOW(window), menuBar);

  gtk_container_add(GTK_CONTAINER(window), overlay);
}

void showMainWindow(const std::string& serverUrl) {
  GtkWidget* window = gMainWindow;
  webkit_web_view_load_uri(gWebView->view(), serverUrl.c_str());
  gtk_widget_show_all(window);
  gtk_widget_grab_focus(gWebView->widget());
  gtk_window_present(GTK_WINDOW(window));
}
