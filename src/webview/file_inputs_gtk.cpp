#include "webview/file_inputs_gtk.h"

#include <string>
#include <vector>

#include "base/paths.h"
#include "webview/file_chooser_gtk.h"

namespace {

gboolean onRunFileChooser(WebKitWebView*, WebKitFileChooserRequest* request, GtkWindow* window) {
  g_object_ref(request);
  showFileChooser(
      "Open", window, GTK_FILE_CHOOSER_ACTION_OPEN, ondrelHomeDir(),
      [request](GtkFileChooser* chooser) {
        gtk_file_chooser_set_select_multiple(chooser, webkit_file_chooser_request_get_select_multiple(request));
      },
      [request](std::vector<std::string> paths) {
        if (paths.empty()) {
          webkit_file_chooser_request_cancel(request);
        } else {
          std::vector<const gchar*> names;
          for (const auto& path : paths) names.push_back(path.c_str());
          names.push_back(nullptr);
          webkit_file_chooser_request_select_files(request, names.data());
        }
        g_object_unref(request);
      });
  return TRUE;
}

}  // namespace

void connectFileInputs(WebKitWebView* view, GtkWindow* window) {
  g_signal_connect(view, "run-file-chooser", G_CALLBACK(onRunFileChooser), window);
}
