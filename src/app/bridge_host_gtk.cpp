#include "app/bridge_host_gtk.h"

#include "app/traffic_light_button_gtk.h"
#include "app/ui_globals_gtk.h"
#include "base/paths.h"

namespace {

using ResultCallback = std::function<void(const std::string&, const std::string&)>;

void evaluated(GObject* source, GAsyncResult* result, gpointer data) {
  std::unique_ptr<ResultCallback> done(static_cast<ResultCallback*>(data));
  GError* error = nullptr;
  JSCValue* value = webkit_web_view_evaluate_javascript_finish(WEBKIT_WEB_VIEW(source), result, &error);
  std::string text, errorText;
  if (value) {
    gchar* s = jsc_value_to_string(value);
    text = s ? s : "";
    g_free(s);
    g_object_unref(value);
  }
  if (error) {
    errorText = error->message;
    g_error_free(error);
  }
  (*done)(text, errorText);
}

}  // namespace

void GtkBridgeHost::evaluateScript(const std::string& script) {
  webkit_web_view_evaluate_javascript(view_, script.data(), static_cast<gssize>(script.size()), nullptr, nullptr,
                                      nullptr, nullptr, nullptr);
}

void GtkBridgeHost::evaluateScriptForResult(const std::string& script, ResultCallback done) {
  webkit_web_view_evaluate_javascript(view_, script.data(), static_cast<gssize>(script.size()), nullptr, nullptr,
                                      nullptr, evaluated, new ResultCallback(std::move(done)));
}

void GtkBridgeHost::pickDirectory(const std::optional<std::string>& message,
                                  std::function<void(std::optional<std::string>)> done) {
  GtkFileChooserNative* chooser = gtk_file_chooser_native_new(
      message ? message->c_str() : "Choose a Folder", window_, GTK_FILE_CHOOSER_ACTION_SELECT_FOLDER, nullptr, nullptr);
  gtk_native_dialog_set_modal(GTK_NATIVE_DIALOG(chooser), TRUE);
  gtk_file_chooser_set_select_multiple(GTK_FILE_CHOOSER(chooser), FALSE);
  // Start where projects live rather than in "Recent".
  gtk_file_chooser_set_current_folder(GTK_FILE_CHOOSER(chooser), ondrelHomeDir().c_str());
  auto* callback = new std::function<void(std::optional<std::string>)>(std::move(done));
  g_signal_connect(chooser, "response", G_CALLBACK(+[](GtkNativeDialog* dialog, gint response, gpointer data) {
                     std::unique_ptr<std::function<void(std::optional<std::string>)>> done(
                         static_cast<std::function<void(std::optional<std::string>)>*>(data));
                     std::optional<std::string> path;
                     if (response == GTK_RESPONSE_ACCEPT) {
                       if (gchar* file = gtk_file_chooser_get_filename(GTK_FILE_CHOOSER(dialog))) {
                         path = file;
                         g_free(file);
                       }
                     }
                     g_object_unref(dialog);
                     (*done)(path);
                   }),
                   callback);
  gtk_native_dialog_show(GTK_NATIVE_DIALOG(chooser));
}

void GtkBridgeHost::setChromeScrim(const std::optional<ScrimColor>& color) {
  std::optional<Rgba> scrim;
  if (color) scrim = Rgba{color->r, color->g, color->b, color->a};
  for (auto* button : gTrafficLights) {
    button->setScrim(scrim);
    button->redraw();
  }
}

void GtkBridgeHost::openInBrowser(const std::string& url) {
  // The outcome is not observed: the log line has been written already.
  g_app_info_launch_default_for_uri_async(url.c_str(), nullptr, nullptr, nullptr, nullptr);
}
