#include "update/update_host_gtk.h"

#include <gtk/gtk.h>

namespace {

constexpr int kProgressWidth = 380;
constexpr int kProgressHeight = 96;

// The progress window, its label and its bar.
struct ProgressWidgets {
  GtkWidget* window;
  GtkWidget* label;
  GtkWidget* bar;
};

ProgressWidgets buildProgressWidgets() {
  GtkWidget* window = gtk_window_new(GTK_WINDOW_TOPLEVEL);
  gtk_window_set_title(GTK_WINDOW(window), "Ondrel Update");
  gtk_window_set_default_size(GTK_WINDOW(window), kProgressWidth, kProgressHeight);
  gtk_window_set_resizable(GTK_WINDOW(window), FALSE);
  gtk_window_set_deletable(GTK_WINDOW(window), FALSE);
  gtk_window_set_type_hint(GTK_WINDOW(window), GDK_WINDOW_TYPE_HINT_DIALOG);
  // The user cannot dismiss it: the update ends it.
  g_signal_connect(window, "delete-event", G_CALLBACK(gtk_true), nullptr);

  // Placed as on a bottom-left origin of 96 px: label at y 66 (18 high),
  // bar at y 36 (16 high).
  GtkWidget* content = gtk_fixed_new();
  gtk_widget_set_size_request(content, kProgressWidth, kProgressHeight);
  GtkWidget* label = gtk_label_new("");
  gtk_label_set_xalign(GTK_LABEL(label), 0.0);
  gtk_label_set_ellipsize(GTK_LABEL(label), PANGO_ELLIPSIZE_END);
  gtk_widget_set_size_request(label, 340, 18);
  gtk_fixed_put(GTK_FIXED(content), label, 20, kProgressHeight - 66 - 18);
  GtkWidget* bar = gtk_progress_bar_new();
  gtk_progress_bar_set_pulse_step(GTK_PROGRESS_BAR(bar), 0.08);
  gtk_widget_set_size_request(bar, 340, 16);
  gtk_widget_set_valign(bar, GTK_ALIGN_CENTER);
  gtk_fixed_put(GTK_FIXED(content), bar, 20, kProgressHeight - 36 - 16);
  gtk_container_add(GTK_CONTAINER(window), content);
  gtk_widget_show_all(content);
  return {window, label, bar};
}

// The window title names the alert for the window list (and for tests that
// look for it); the message text is the alert itself.
GtkWidget* messageDialog(const char* title, const char* message, const std::string& informative) {
  GtkWidget* dialog = gtk_message_dialog_new(nullptr, GTK_DIALOG_MODAL, GTK_MESSAGE_OTHER, GTK_BUTTONS_NONE, "%s",
                                             message);
  gtk_message_dialog_format_secondary_text(GTK_MESSAGE_DIALOG(dialog), "%s", informative.c_str());
  gtk_window_set_title(GTK_WINDOW(dialog), title);
  gtk_window_set_position(GTK_WINDOW(dialog), GTK_WIN_POS_CENTER);
  gtk_window_set_keep_above(GTK_WINDOW(dialog), TRUE);
  return dialog;
}

// Shows the dialog in front and returns at once; answered gets the response
// when the dialog ends, and the dialog is gone by then. No nested loop: the
// answer comes from the main loop, which meanwhile serves everything else.
// The default button holds the focus, so Return picks it.
void presentDialog(GtkWidget* dialog, int defaultResponse, std::function<void(int)> answered) {
  using Answer = std::function<void(int)>;
  gtk_dialog_set_default_response(GTK_DIALOG(dialog), defaultResponse);
  if (GtkWidget* button = gtk_dialog_get_widget_for_response(GTK_DIALOG(dialog), defaultResponse))
    gtk_widget_grab_focus(button);
  g_signal_connect_data(
      dialog, "response", G_CALLBACK(+[](GtkDialog* self, int response, gpointer data) {
        // Taken out first: destroying the dialog frees the stored copy.
        Answer answer = std::move(*static_cast<Answer*>(data));
        *static_cast<Answer*>(data) = nullptr;
        gtk_widget_destroy(GTK_WIDGET(self));
        if (answer) answer(response);
      }),
      new Answer(std::move(answered)), +[](gpointer data, GClosure*) { delete static_cast<Answer*>(data); },
      GConnectFlags(0));
  gtk_window_present(GTK_WINDOW(dialog));
}

// An alert with a single "OK" button.
void showNotice(const char* title, const char* message, const std::string& informative,
                std::function<void()> dismissed) {
  GtkWidget* dialog = messageDialog(title, message, informative);
  gtk_dialog_add_button(GTK_DIALOG(dialog), "OK", GTK_RESPONSE_OK);
  presentDialog(dialog, GTK_RESPONSE_OK, [dismissed = std::move(dismissed)](int) {
    if (dismissed) dismissed();
  });
}

}  // namespace

GtkUpdateHost::~GtkUpdateHost() {
  stopPulsing();
  if (progressWindow_) gtk_widget_destroy(progressWindow_);
}

void GtkUpdateHost::buildProgressWindow() {
  ProgressWidgets widgets = buildProgressWidgets();
  progressWindow_ = widgets.window;
  progressLabel_ = widgets.label;
  progressBar_ = widgets.bar;
}

void GtkUpdateHost::startPulsing() {
  if (pulseTimer_) return;
  gtk_progress_bar_pulse(GTK_PROGRESS_BAR(progressBar_));
  pulseTimer_ = g_timeout_add(100, [](gpointer bar) -> gboolean {
    gtk_progress_bar_pulse(GTK_PROGRESS_BAR(bar));
    return G_SOURCE_CONTINUE;
  }, progressBar_);
}

void GtkUpdateHost::stopPulsing() {
  if (pulseTimer_) g_source_remove(pulseTimer_);
  pulseTimer_ = 0;
}

void GtkUpdateHost::askToUpdate(const std::string& remote, const std::string& current,
                                std::function<void(Choice)> answered) {
  GtkWidget* dialog = messageDialog("Ondrel Update Available", "Ondrel Update Available",
                                    "A new version of Ondrel (" + remote + ") is available. You are running " +
                                        current + ".\n\nUpdate now, or update on your next restart?");
  enum { kNow = 1, kNextRestart = 2, kLater = 3 };
  gtk_dialog_add_button(GTK_DIALOG(dialog), "Update Now", kNow);
  gtk_dialog_add_button(GTK_DIALOG(dialog), "Update on Next Restart", kNextRestart);
  gtk_dialog_add_button(GTK_DIALOG(dialog), "Later", kLater);
  presentDialog(dialog, kNow, [answered = std::move(answered)](int response) {
    switch (response) {
      case kNow: answered(Choice::UpdateNow); break;
      case kNextRestart: answered(Choice::NextRestart); break;
      default: answered(Choice::Later); break;
    }
  });
}

void GtkUpdateHost::showProgress(const std::string& label) {
  if (!progressWindow_) buildProgressWindow();
  gtk_label_set_text(GTK_LABEL(progressLabel_), label.c_str());
  gtk_progress_bar_set_fraction(GTK_PROGRESS_BAR(progressBar_), 0.0);
  startPulsing();
  gtk_window_set_position(GTK_WINDOW(progressWindow_), GTK_WIN_POS_CENTER);
  gtk_widget_show(progressWindow_);
  gtk_window_present(GTK_WINDOW(progressWindow_));
}

void GtkUpdateHost::setProgress(double fraction) {
  if (!progressBar_) return;
  if (fraction <= 0.0) {
    startPulsing();
    return;
  }
  stopPulsing();
  gtk_progress_bar_set_fraction(GTK_PROGRESS_BAR(progressBar_), std::min(fraction, 1.0));
}

void GtkUpdateHost::hideProgress() {
  if (!progressWindow_) return;
  stopPulsing();
  gtk_widget_hide(progressWindow_);
}

void GtkUpdateHost::showFailure(const std::string& informativeText, std::function<void()> dismissed) {
  showNotice("Update Failed", "Update Failed", informativeText, std::move(dismissed));
}

void GtkUpdateHost::showAbout(const std::string& informativeText) {
  showNotice("About Ondrel", "Ondrel", informativeText, nullptr);
}

void GtkUpdateHost::runEventLoop() {
  loopLevel_ = gtk_main_level() + 1;
  gtk_main();
  loopLevel_ = 0;
}

void GtkUpdateHost::stopEventLoop() {
  if (loopLevel_ && gtk_main_level() == loopLevel_) {
    gtk_main_quit();
  } else if (quitApp_) {
    quitApp_();
  }
}
