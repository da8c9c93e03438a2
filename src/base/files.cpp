#include "base/files.h"

#include <gio/gio.h>
#include <glib/gstdio.h>

#include <cerrno>
#include <cstring>

std::optional<std::string> readWholeFile(const std::string& path, std::string* error) {
  g_autofree gchar* contents = nullptr;
  gsize length = 0;
  GError* err = nullptr;
  if (!g_file_get_contents(path.c_str(), &contents, &length, &err)) {
    if (error) *error = err ? err->message : "unknown error";
    g_clear_error(&err);
    return std::nullopt;
  }
  return std::string(contents, length);
}

FileResult writeFileAtomically(const std::string& path, std::string_view data) {
  GError* err = nullptr;
  if (!g_file_set_contents_full(path.c_str(), data.data(), static_cast<gssize>(data.size()),
                                G_FILE_SET_CONTENTS_CONSISTENT, 0644, &err)) {
    FileResult result{false, err ? err->message : "unknown error"};
    g_clear_error(&err);
    return result;
  }
  return {true, {}};
}

FileResult makeDirectories(const std::string& path) {
  if (g_mkdir_with_parents(path.c_str(), 0755) != 0) {
    int e = errno;
    return {false, std::string("Error creating directory “") + path + "”: " + g_strerror(e)};
  }
  return {true, {}};
}

std::string parentDirectory(const std::string& path) {
  g_autofree gchar* dir = g_path_get_dirname(path.c_str());
  return dir;
}
