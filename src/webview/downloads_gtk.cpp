#include "webview/downloads_gtk.h"

#include <string>

#include "base/log.h"
#include "base/main_thread.h"
#include "base/paths.h"
#include "webview/file_chooser_gtk.h"

namespace {

constexpr const char* kCancelledByUser = "ondrel-cancelled-by-user";
constexpr const char* kFailed = "ondrel-failed";

void chooseDestination(WebKitDownload* download, const std::string& suggested, GtkWindow* window) {
  std::string name = suggested.empty() ? "download" : suggested;
  // Without a configured user folder the conventional one is used.
  const char* special = g_get_user_special_dir(G_USER_DIRECTORY_DOWNLOAD);
  std::string downloads = special ? special : ondrelHomeDir() + "/Downloads";
  g_mkdir_with_parents(downloads.c_str(), 0755);
  logLine("[Download] save panel for '" + name + "'");
  g_object_ref(download);
  showFileChooser(
      "Save Download", window, GTK_FILE_CHOOSER_ACTION_SAVE, downloads,
      [&name](GtkFileChooser* chooser) {
        gtk_file_chooser_set_do_overwrite_confirmation(chooser, TRUE);
        gtk_file_chooser_set_current_name(chooser, name.c_str());
      },
      [download](std::vector<std::string> paths) {
        if (!paths.empty()) {
          logLine("[Download] saving to " + paths.front());
          g_autofree gchar* uri = g_filename_to_uri(paths.front().c_str(), nullptr, nullptr);
          webkit_download_set_allow_overwrite(download, TRUE);
          webkit_download_set_destination(download, uri);
        } else {
          logLine("[Download] cancelled");
          g_object_set_data(G_OBJECT(download), kCancelledByUser, GINT_TO_POINTER(1));
          webkit_download_cancel(download);
        }
        g_object_unref(download);
      });
}

void onDownloadStarted(WebKitWebContext*, WebKitDownload* download, GtkWindow* window) {
  g_signal_connect(download, "decide-destination",
                   G_CALLBACK(+[](WebKitDownload* download, gchar* suggested, GtkWindow* window) -> gboolean {
                     // Answered later, from the dialog.
                     std::string name = suggested ? suggested : "";
                     g_object_ref(download);
                     runOnMain([download, name, window] {
                       chooseDestination(download, name, window);
                       g_object_unref(download);
                     });
                     return TRUE;
                   }),
                   window);
  g_signal_connect(download, "failed", G_CALLBACK(+[](WebKitDownload* download, GError* error, gpointer) {
                     g_object_set_data(G_OBJECT(download), kFailed, GINT_TO_POINTER(1));
                     if (g_object_get_data(G_OBJECT(download), kCancelledByUser)) return;
                     logLine(std::string("[Download] failed: ") + (error ? error->message : "unknown error"));
                   }),
                   nullptr);
  g_signal_connect(download, "finished", G_CALLBACK(+[](WebKitDownload* download, gpointer) {
                     if (!g_object_get_data(G_OBJECT(download), kFailed)) logLine("[Download] finished");
                   }),
                   nullptr);
}

}  // namespace

void connectDownloads(WebKitWebContext* context, GtkWindow* window) {
  g_signal_connect(context, "download-started", G_CALLBACK(onDownloadStarted), window);
}
