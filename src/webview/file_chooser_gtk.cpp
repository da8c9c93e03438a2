#include "webview/file_chooser_gtk.h"

#include <memory>

namespace {

using Done = std::function<void(std::vector<std::string>)>;

void onResponse(GtkNativeDialog* dialog, gint response, gpointer data) {
  std::unique_ptr<Done> done(static_cast<Done*>(data));
  std::vector<std::string> paths;
  if (response == GTK_RESPONSE_ACCEPT) {
    GSList* files = gtk_file_chooser_get_filenames(GTK_FILE_CHOOSER(dialog));
    for (GSList* f = files; f; f = f->next) paths.emplace_back(static_cast<const char*>(f->data));
    g_slist_free_full(files, g_free);
  }
  g_object_unref(dialog);
  (*done)(std::move(paths));
}

}  // namespace

void showFileChooser(const char* title, GtkWindow* window, GtkFileChooserAction action, const std::string& folder,
                     const std::function<void(GtkFileChooser*)>& configure, Done done) {
  GtkFileChooserNative* chooser = gtk_file_chooser_native_new(title, window, action, nullptr, nullptr);
  gtk_native_dialog_set_modal(GTK_NATIVE_DIALOG(chooser), TRUE);
  gtk_file_chooser_set_current_folder(GTK_FILE_CHOOSER(chooser), folder.c_str());
  if (configure) configure(GTK_FILE_CHOOSER(chooser));
  g_signal_connect(chooser, "response", G_CALLBACK(onResponse), new Done(std::move(done)));
  gtk_native_dialog_show(GTK_NATIVE_DIALOG(chooser));
}
