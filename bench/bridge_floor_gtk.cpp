// The floor that bench/bridge_roundtrip.py holds the app against: what a
// bridge round trip costs in WebKitGTK itself. One window, one web view, the
// app's "ondrel" message handler behind the same key envelope and origin
// guard, answering with the same reply expression, and nothing else: no log,
// no action table, no threads, JSC values read in place. It knows the two
// actions the bench page uses, "platform" and "readFileBase64".
//
// Usage: bridge_floor URL
#include <fcntl.h>
#include <gtk/gtk.h>
#include <sys/stat.h>
#include <unistd.h>
#include <webkit2/webkit2.h>

#include <string>

#include "base/server_address.h"
#include "bridge/bridge.h"
#include "bridge/bridge_gate.h"
#include "bridge/platform_info.h"

namespace {

constexpr size_t kMaxBase64Source = 16777216;

struct Floor {
  std::string key;
  std::string guard;
  std::string platformJson;
  WebKitWebView* view = nullptr;
};

std::string stringOf(JSCValue* value) {
  gchar* text = jsc_value_to_string(value);
  std::string result = text ? text : "";
  g_free(text);
  g_object_unref(value);
  return result;
}

void evaluate(Floor* f, const std::string& script) {
  webkit_web_view_evaluate_javascript(f->view, script.data(), static_cast<gssize>(script.size()), nullptr, nullptr,
                                      nullptr, nullptr, nullptr);
}

void reply(Floor* f, const std::string& id, bool ok, const std::string& json) {
  evaluate(f, f->guard + "(" + bridgeReplyExpression(id, ok, json) + ")");
}

// Read and encoded straight into the reply text: one buffer for the bytes,
// one for the script.
void replyWithFile(Floor* f, const std::string& id, const std::string& path) {
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  struct stat st {};
  if (fd < 0 || fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    if (fd >= 0) ::close(fd);
    reply(f, id, false, "\"cannot read\"");
    return;
  }
  if (static_cast<size_t>(st.st_size) > kMaxBase64Source) {
    ::close(fd);
    reply(f, id, false, "\"file too large to present (max 16 MB)\"");
    return;
  }
  std::string bytes(static_cast<size_t>(st.st_size), '\0');
  size_t used = 0;
  while (used < bytes.size()) {
    ssize_t n = ::read(fd, &bytes[used], bytes.size() - used);
    if (n <= 0) break;
    used += static_cast<size_t>(n);
  }
  ::close(fd);
  const std::string head = f->guard + "(" + bridgeReplyHead(id, true) + '"';
  std::string script;
  script.reserve(head.size() + (used / 3 + 2) * 4 + kBridgeReplyTail.size() + 2);
  script += head;
  const size_t start = script.size();
  script.resize(start + (used / 3 + 1) * 4 + 4);
  gint state = 0, save = 0;
  gsize written = g_base64_encode_step(reinterpret_cast<const guchar*>(bytes.data()), used, FALSE, &script[start],
                                       &state, &save);
  written += g_base64_encode_close(FALSE, &script[start] + written, &state, &save);
  script.resize(start + written);
  script += '"';
  script += kBridgeReplyTail;
  script += ')';
  evaluate(f, script);
}

void onMessage(WebKitUserContentManager*, WebKitJavascriptResult* result, Floor* f) {
  JSCValue* envelope = webkit_javascript_result_get_js_value(result);
  if (!jsc_value_is_array(envelope)) return;
  if (stringOf(jsc_value_object_get_property_at_index(envelope, 0)) != f->key) return;
  JSCValue* body = jsc_value_object_get_property_at_index(envelope, 2);
  JSCValue* idValue = jsc_value_object_get_property(body, "__reqId");
  const bool isRequest = !jsc_value_is_undefined(idValue);
  const std::string id = stringOf(idValue);
  if (isRequest) {
    const std::string name = stringOf(jsc_value_object_get_property(body, "name"));
    if (name == "platform") {
      reply(f, id, true, f->platformJson);
    } else if (name == "readFileBase64") {
      JSCValue* args = jsc_value_object_get_property(body, "args");
      replyWithFile(f, id, stringOf(jsc_value_object_get_property_at_index(args, 0)));
      g_object_unref(args);
    } else {
      reply(f, id, false, "\"unknown native action\"");
    }
  }
  g_object_unref(body);
}

}  // namespace

int main(int argc, char** argv) {
  gtk_init(&argc, &argv);
  if (argc < 2) {
    g_printerr("usage: bridge_floor URL\n");
    return 2;
  }
  auto* f = new Floor;
  gchar* key = g_uuid_string_random();
  f->key = key;
  g_free(key);
  BridgeGate gate(ondrelOriginOf(argv[1]), f->key);
  f->guard = originGuardExpression(gate.origin());
  f->platformJson = platformInfo().dump();

  WebKitUserContentManager* content = webkit_user_content_manager_new();
  for (const auto& [source, frames] : {std::pair{gate.topFrameScript(""), WEBKIT_USER_CONTENT_INJECT_TOP_FRAME},
                                       std::pair{gate.otherFrameScript(), WEBKIT_USER_CONTENT_INJECT_ALL_FRAMES}}) {
    WebKitUserScript* script =
        webkit_user_script_new(source.c_str(), frames, WEBKIT_USER_SCRIPT_INJECT_AT_DOCUMENT_START, nullptr, nullptr);
    webkit_user_content_manager_add_script(content, script);
    webkit_user_script_unref(script);
  }
  g_signal_connect(content, "script-message-received::ondrel", G_CALLBACK(onMessage), f);
  webkit_user_content_manager_register_script_message_handler(content, "ondrel");

  GtkWidget* window = gtk_window_new(GTK_WINDOW_TOPLEVEL);
  gtk_window_set_default_size(GTK_WINDOW(window), 1260, 900);
  f->view = WEBKIT_WEB_VIEW(webkit_web_view_new_with_user_content_manager(content));
  gtk_container_add(GTK_CONTAINER(window), GTK_WIDGET(f->view));
  g_signal_connect(window, "destroy", G_CALLBACK(gtk_main_quit), nullptr);
  webkit_web_view_load_uri(f->view, argv[1]);
  gtk_widget_show_all(window);
  gtk_main();
  return 0;
}
