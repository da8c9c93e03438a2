#include "app/instance_session_gtk.h"

#include <cstdio>

#include "base/server_address.h"

namespace {

constexpr double kTopInset = 28.0;

void addDocumentStartScript(WebKitUserContentManager* content, const std::string& source,
                            WebKitUserContentInjectedFrames frames) {
  WebKitUserScript* script = webkit_user_script_new(source.c_str(), frames, WEBKIT_USER_SCRIPT_INJECT_AT_DOCUMENT_START,
                                                    nullptr, nullptr);
  webkit_user_content_manager_add_script(content, script);
  webkit_user_script_unref(script);
}

}  // namespace

InstanceSession::InstanceSession(MainWindow& window, std::string serverUrl)
    : serverUrl_(std::move(serverUrl)),
      referenceHost_(ondrelRawHostOf(serverUrl_)),
      gate_(ondrelOriginOf(serverUrl_)),
      host_(window, originGuardExpression(gate_.origin())),
      bridge_(host_, gate_.origin()) {}

void InstanceSession::installScripts(WebKitUserContentManager* content) const {
  webkit_user_content_manager_remove_all_scripts(content);
  char host[96];
  std::snprintf(host, sizeof host, "window.__ondrelHost = { platform: 'linux', topInset: %.0f };", kTopInset);
  addDocumentStartScript(content, gate_.topFrameScript(host), WEBKIT_USER_CONTENT_INJECT_TOP_FRAME);
  addDocumentStartScript(content, gate_.otherFrameScript(), WEBKIT_USER_CONTENT_INJECT_ALL_FRAMES);
}
