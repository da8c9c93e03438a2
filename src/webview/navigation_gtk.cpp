#include "webview/navigation_gtk.h"

#include "webview/navigation_policy.h"

namespace {

gboolean decideNavigation(WebKitNavigationPolicyDecision* decision, const NavigationPolicy* policy, bool newWindow) {
  WebKitNavigationAction* action = webkit_navigation_policy_decision_get_navigation_action(decision);
  WebKitURIRequest* request = webkit_navigation_action_get_request(action);
  const char* uri = request ? webkit_uri_request_get_uri(request) : nullptr;
  std::string url = uri ? uri : "";
  const std::string host = policy->referenceHost();
  if (newWindow) {
    if (newWindowDecision(url, host) == NewWindowDecision::OpenExternally) policy->openExternally(url);
    webkit_policy_decision_ignore(WEBKIT_POLICY_DECISION(decision));
    return TRUE;
  }
  bool linkClick = webkit_navigation_action_get_navigation_type(action) == WEBKIT_NAVIGATION_TYPE_LINK_CLICKED;
  if (navigationDecision(linkClick, url, host) == NavigationDecision::OpenExternally) {
    policy->openExternally(url);
    webkit_policy_decision_ignore(WEBKIT_POLICY_DECISION(decision));
    return TRUE;
  }
  webkit_policy_decision_use(WEBKIT_POLICY_DECISION(decision));
  return TRUE;
}

gboolean onDecidePolicy(WebKitWebView*, WebKitPolicyDecision* decision, WebKitPolicyDecisionType type,
                        const NavigationPolicy* policy) {
  switch (type) {
    case WEBKIT_POLICY_DECISION_TYPE_NAVIGATION_ACTION:
      return decideNavigation(WEBKIT_NAVIGATION_POLICY_DECISION(decision), policy, false);
    case WEBKIT_POLICY_DECISION_TYPE_NEW_WINDOW_ACTION:
      return decideNavigation(WEBKIT_NAVIGATION_POLICY_DECISION(decision), policy, true);
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

}  // namespace

void connectNavigationPolicy(WebKitWebView* view, NavigationPolicy policy) {
  g_signal_connect_data(view, "decide-policy", G_CALLBACK(onDecidePolicy), new NavigationPolicy(std::move(policy)),
                        +[](gpointer data, GClosure*) { delete static_cast<NavigationPolicy*>(data); },
                        GConnectFlags(0));
}
