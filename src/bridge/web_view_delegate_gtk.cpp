#include "bridge/web_view_delegate_gtk.h"

#include "base/log.h"
#include "base/main_thread.h"
#include "base/paths.h"
#include "bridge/file_chooser_gtk.h"
#include "webview/navigation_policy.h"

namespace {

struct Delegate {
  Bridge& bridge;
  const BridgeGate& gate;
  GtkWindow* window;
  std::string referenceHost;
  bool loadFailed = false;
};

Json jsonFromJsValue(JSCValue* value) {
  gchar* text = jsc_value_to_json(value, 0);
  if (!text) return Json();
  auto parsed = parseJson(text);
  g_free(text);
  return parsed.value_or(Json());
}

void onScriptMessage(WebKitUserContentManager*, WebKitJavascriptResult* result, Delegate* d) {
  if (auto body = d->gate.admit(jsonFromJsValue(webkit_javascript_result_get_js_value(result))))
    d->bridge.didReceiveScriptMessage(std::move(*body));
}

void onLoadChanged(WebKitWebView*, WebKitLoadEvent event, Delegate* d) {
  if (event == WEBKIT_LOAD_STARTED) d->loadFailed = false;
  // A failed load also ends in FINISHED; only real page loads are probed.
  if (event == WEBKIT_LOAD_FINISHED && !d->loadFailed) d->bridge.pageDidFinishLoading();
}

gboolean onLoadFailed(WebKitWebView*, WebKitLoadEvent, gchar*, GError*, Delegate* d) {
  d->loadFailed = true;
  return FALSE;
}

gboolean decideNavigation(WebKitNavigationPolicyDecision* decision, Delegate* d, bool newWindow) {
  WebKitNavigationAction* action = webkit_navigation_policy_decision_get_navigation_action(decision);
  WebKitURIRequest* request = webkit_navigation_action_get_request(action);
  const char* uri = request ? webkit_uri_request_get_uri(request) : nullptr;
  std::string url = uri ? uri : "";
  if (newWindow) {
    // No new web view is ever made.
    if (newWindowDecision(url, d->referenceHost) == NewWindowDecision::OpenExternally) d->bridge.openExternally(url);
    webkit_policy_decision_ignore(WEBKIT_POLICY_DECISION(decision));
    return TRUE;
  }
  bool linkClick = webkit_navigation_action_get_navigation_type(action) == WEBKIT_NAVIGATION_TYPE_LINK_CLICKED;
  if (navigationDecision(linkClick, url, d->referenceHost) == NavigationDecision::OpenExternally) {
    d->bridge.openExternally(url);
    webkit_policy_decision_ignore(WEBKIT_POLICY_DECISION(decision));
    return TRUE;
  }
  webkit_policy_decision_use(WEBKIT_POLICY_DECISION(decision));
  return TRUE;
}

gboolean onDecidePolicy(WebKitWebView*, WebKitPolicyDecision* decision, WebKitPolicyDecisionType type, Delegate* d) {
  switch (type) {
    case WEBKIT_POLICY_DECISION_TYPE_NAVIGATION_ACTION:
      return decideNavigation(WEBKIT_NAVIGATION_POLICY_DECISION(decision), d, false);
    case WEBKIT_POLICY_DECISION_TYPE_NEW_WINDOW_ACTION:
      return decideNavigation(WEBKIT_NAVIGATION_POLICY_DECISION(decision), d, true);
    case WEBKIT_POLICY_DECISION_TYPE_RESPONSE: {
      auto* response = WEBKIT_RESPONSE_POLICY_DECISION(decision);
      if (webkit_response_policy_decision_is_mime_type_supported(response)) {
        webkit_policy_decision_use(decision);
      } else {
        webkit_policy_decision_download(decision);
      }
      return TRUE;
    }
    default:
      return FALSE;
  }
}

// --- downloads ---------------------------------------------------------

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
          gchar* uri = g_filename_to_uri(paths.front().c_str(), nullptr, nullptr);
          webkit_download_set_allow_overwrite(download, TRUE);
          webkit_download_set_destination(download, uri);
          g_free(uri);
        } else {
          logLine("[Download] cancelled");
          g_object_set_data(G_OBJECT(download), kCancelledByUser, GINT_TO_POINTER(1));
          webkit_download_cancel(download);
        }
        g_object_unref(download);
      });
}

void onDownloadStarted(WebKitWebContext*, WebKitDownload* download, Delegate* d) {
  g_signal_connect(download, "decide-destination",
                   G_CALLBACK(+[](WebKitDownload* download, gchar* suggested, Delegate* d) -> gboolean {
                     // Answered later, from the dialog.
                     std::string name = suggested ? suggested : "";
                     g_object_ref(download);
                     runOnMain([download, name, window = d->window] {
                       chooseDestination(download, name, window);
                       g_object_unref(download);
                     });
                     return TRUE;
                   }),
                   d);
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

// --- file inputs --------------------------------------------------------

gboolean onRunFileChooser(WebKitWebView*, WebKitFileChooserRequest* request, Delegate* d) {
  g_object_ref(request);
  showFileChooser(
      "Open", d->window, GTK_FILE_CHOOSER_ACTION_OPEN, ondrelHomeDir(),
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

void connectWebViewDelegate(WebKitWebView* view, GtkWindow* window, Bridge& bridge, const BridgeGate& gate,
                            const std::string& referenceHost) {
  auto* d = new Delegate{bridge, gate, window, referenceHost};  // lives as long as the view
  WebKitUserContentManager* content = webkit_web_view_get_user_content_manager(view);
  g_signal_connect(content, "script-message-received::ondrel", G_CALLBACK(onScriptMessage), d);
  webkit_user_content_manager_register_script_message_handler(content, "ondrel");
  g_signal_connect(view, "load-changed", G_CALLBACK(onLoadChanged), d);
  g_signal_connect(view, "load-failed", G_CALLBACK(onLoadFailed), d);
  g_signal_connect(view, "decide-policy", G_CALLBACK(onDecidePolicy), d);
  g_signal_connect(view, "run-file-chooser", G_CALLBACK(onRunFileChooser), d);
  g_signal_connect(webkit_web_view_get_context(view), "download-started", G_CALLBACK(onDownloadStarted), d);
}
