#include "webview/website_data_gtk.h"

#include <string>

#include "base/paths.h"

WebKitWebContext* ondrelPersistentWebContext() {
  // In folders of our own rather than beside the app's records.
  std::string data = ondrelDataDir() + "/webkit";
  std::string cache = ondrelHomeDir() + "/.cache/ondrel/webkit";
  WebKitWebsiteDataManager* manager = webkit_website_data_manager_new("base-data-directory", data.c_str(),
                                                                      "base-cache-directory", cache.c_str(), nullptr);
  WebKitWebContext* context = webkit_web_context_new_with_website_data_manager(manager);
  std::string cookies = data + "/cookies.sqlite";
  webkit_cookie_manager_set_persistent_storage(webkit_web_context_get_cookie_manager(context), cookies.c_str(),
                                               WEBKIT_COOKIE_PERSISTENT_STORAGE_SQLITE);
  g_object_unref(manager);
  return context;
}
