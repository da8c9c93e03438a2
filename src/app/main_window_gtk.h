#pragma once

#include <gtk/gtk.h>
#include <webkit2/webkit2.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "app/draggable_web_view_gtk.h"
#include "app/log_panel_gtk.h"
#include "app/traffic_light_button_gtk.h"

// The one window: the web view, the hidden log panel below it, the drawn
// window buttons and the hidden menu bar over it. Built hidden; lives until
// the process ends.
class MainWindow {
 public:
  // content: the user content manager the view is made with. close: what the
  // drawn close button and the window manager's close request do.
  MainWindow(GtkApplication* app, WebKitUserContentManager* content, GtkWidget* menuBar, std::function<void()> close);
  MainWindow(const MainWindow&) = delete;
  MainWindow& operator=(const MainWindow&) = delete;

  GtkWindow* window() const { return window_; }
  WebKitWebView* view() const { return webView_.view(); }
  LogPanel& logPanel() { return logPanel_; }

  // Loads the address and brings the window up.
  void show(const std::string& url);
  void present() { gtk_window_present(window_); }
  void reload();
  // nullopt removes the tint from the drawn buttons.
  void setButtonScrim(const std::optional<Rgba>& scrim);

 private:
  void addTrafficLights(GtkOverlay* overlay);
  void toggleFullscreen();

  GtkWindow* window_;
  DraggableWebView webView_;
  LogPanel logPanel_;
  std::function<void()> close_;
  std::vector<std::unique_ptr<TrafficLightButton>> trafficLights_;
  bool fullscreen_ = false;
};
