#include "app/main_window_gtk.h"

#include "base/log.h"

namespace {

constexpr int kWidth = 1260;
constexpr int kHeight = 900;

}  // namespace

MainWindow::MainWindow(GtkApplication* app, WebKitUserContentManager* content, GtkWidget* menuBar,
                       std::function<void()> close)
    : window_(GTK_WINDOW(gtk_window_new(GTK_WINDOW_TOPLEVEL))), webView_(content), close_(std::move(close)) {
  gtk_window_set_application(window_, app);
  gtk_window_set_title(window_, "Ondrel");
  gtk_window_set_default_size(window_, kWidth, kHeight);
  // No window-manager frame: the web view's top strip, the drawn buttons and
  // the resize band along the edges replace it.
  gtk_window_set_decorated(window_, FALSE);
  gtk_window_set_position(window_, GTK_WIN_POS_CENTER);
  g_signal_connect(window_, "delete-event", G_CALLBACK(+[](GtkWidget*, GdkEvent*, MainWindow* self) {
                     self->close_();
                     return TRUE;
                   }),
                   this);
  g_signal_connect(window_, "window-state-event",
                   G_CALLBACK(+[](GtkWidget*, GdkEventWindowState* event, MainWindow* self) {
                     self->fullscreen_ = event->new_window_state & GDK_WINDOW_STATE_FULLSCREEN;
                     return FALSE;
                   }),
                   this);
  // Inactive windows draw their buttons faded.
  g_signal_connect(window_, "notify::is-active", G_CALLBACK(+[](GObject*, GParamSpec*, MainWindow* self) {
                     for (auto& button : self->trafficLights_) button->redraw();
                   }),
                   this);

  GtkWidget* overlay = gtk_overlay_new();
  GtkWidget* stack = gtk_box_new(GTK_ORIENTATION_VERTICAL, 0);
  gtk_box_pack_start(GTK_BOX(stack), webView_.widget(), TRUE, TRUE, 0);
  gtk_box_pack_start(GTK_BOX(stack), logPanel_.widget(), FALSE, FALSE, 0);
  gtk_container_add(GTK_CONTAINER(overlay), stack);
  addTrafficLights(GTK_OVERLAY(overlay));
  gtk_overlay_add_overlay(GTK_OVERLAY(overlay), menuBar);
  gtk_container_add(GTK_CONTAINER(window_), overlay);
}

void MainWindow::toggleFullscreen() {
  if (fullscreen_) {
    gtk_window_unfullscreen(window_);
  } else {
    gtk_window_fullscreen(window_);
  }
}

void MainWindow::addTrafficLights(GtkOverlay* overlay) {
  struct Button {
    Rgba color;
    int kind;
    const char* title;
    std::function<void()> action;
  };
  const Button buttons[] = {
      {{255 / 255.0, 59 / 255.0, 48 / 255.0, 1}, TrafficLightButton::Close, "Close", [this] { close_(); }},
      {{255 / 255.0, 204 / 255.0, 0, 1}, TrafficLightButton::Minimize, "Minimize",
       [this] { gtk_window_iconify(window_); }},
      {{40 / 255.0, 205 / 255.0, 65 / 255.0, 1}, TrafficLightButton::Fullscreen, "Fullscreen",
       [this] { toggleFullscreen(); }},
  };
  int index = 0;
  for (const Button& def : buttons) {
    auto button = std::make_unique<TrafficLightButton>(def.color, def.kind, def.title, def.action);
    GtkWidget* widget = button->widget();
    // Centred 22 px below the top edge, 18 + 24 × index from the left.
    gtk_widget_set_halign(widget, GTK_ALIGN_START);
    gtk_widget_set_valign(widget, GTK_ALIGN_START);
    gtk_widget_set_margin_start(widget, 18 + 24 * index);
    gtk_widget_set_margin_top(widget, 22 - 10);
    gtk_overlay_add_overlay(overlay, widget);
    trafficLights_.push_back(std::move(button));
    ++index;
  }
}

void MainWindow::setButtonScrim(const std::optional<Rgba>& scrim) {
  for (auto& button : trafficLights_) {
    button->setScrim(scrim);
    button->redraw();
  }
}

void MainWindow::reload() {
  logLine("[Reload] reloading webview");
  webkit_web_view_reload(view());
}

void MainWindow::show(const std::string& url) {
  webkit_web_view_load_uri(view(), url.c_str());
  gtk_widget_show_all(GTK_WIDGET(window_));
  gtk_widget_grab_focus(webView_.widget());
  gtk_window_present(window_);
}
