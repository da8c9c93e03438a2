#include "app/bridge_host_gtk.h"

#include "base/main_thread.h"
#include "base/paths.h"
#include "webview/file_chooser_gtk.h"

namespace {

using ResultCallback = std::function<void(const std::string&, const std::string&)>;

void evaluated(GObject* source, GAsyncResult* result, gpointer data) {
  std::unique_ptr<ResultCallback> done(static_cast<ResultCallback*>(data));
  g_autoptr(GError) error = nullptr;
  JSCValue* value = webkit_web_view_evaluate_javascript_finish(WEBKIT_WEB_VIEW(source), result, &error);
  std::string text, errorText;
  if (value) {
    g_autofree gchar* s = jsc_value_to_string(value);
    text = s ? s : "";
    g_object_unref(value);
  }
  if (error) errorText = error->message;
  (*done)(text, errorText);
}

}  // namespace

GtkBridgeHost::GtkBridgeHost(MainWindow& window, const std::string& guard)
    : window_(window),
      batch_(
          guard,
          [view = window.view()](const std::string& script) {
            webkit_web_view_evaluate_javascript(view, script.data(), static_cast<gssize>(script.size()), nullptr,
                                                nullptr, nullptr, nullptr, nullptr);
          },
          runOnMain, mainLoopTurn) {}

void GtkBridgeHost::evaluateScript(std::string script) { batch_.add(std::move(script)); }

void GtkBridgeHost::evaluateScriptForResult(const std::string& script, ResultCallback done) {
  batch_.flush();
  webkit_web_view_evaluate_javascript(window_.view(), script.data(), static_cast<gssize>(script.size()), nullptr, nullptr,
                                      nullptr, evaluated, new ResultCallback(std::move(done)));
}

void GtkBridgeHost::pickDirectory(const std::optional<std::string>& message,
                                  std::function<void(std::optional<std::string>)> done) {
  // Starts where projects live rather than in "Recent".
  showFileChooser(message ? message->c_str() : "Choose a Folder", window_.window(), GTK_FILE_CHOOSER_ACTION_SELECT_FOLDER,
                  ondrelHomeDir(), nullptr, [done = std::move(done)](std::vector<std::string> paths) {
                    done(paths.empty() ? std::nullopt : std::optional<std::string>(paths.front()));
                  });
}

void GtkBridgeHost::setChromeScrim(const std::optional<ScrimColor>& color) {
  std::optional<Rgba> scrim;
  if (color) scrim = Rgba{color->r, color->g, color->b, color->a};
  window_.setButtonScrim(scrim);
}

void GtkBridgeHost::openInBrowser(const std::string& url) {
  // The outcome is not observed: the log line has been written already.
  g_app_info_launch_default_for_uri_async(url.c_str(), nullptr, nullptr, nullptr, nullptr);
}
