#include "webview/navigation_policy.h"

#include "base/server_address.h"

namespace {

bool isWeb(const std::string& url) {
  std::string scheme = ondrelSchemeOf(url);
  return scheme == "http" || scheme == "https";
}

}  // namespace

NavigationDecision navigationDecision(bool isLinkClick, const std::string& url, const std::string& referenceHost) {
  if (isLinkClick && !url.empty() && isWeb(url) && ondrelRawHostOf(url) != referenceHost) {
    return NavigationDecision::OpenExternally;
  }
  return NavigationDecision::Allow;
}

NewWindowDecision newWindowDecision(const std::string& url, const std::string& referenceHost) {
  if (url.empty() || !isWeb(url)) return NewWindowDecision::Ignore;
  if (ondrelRawHostOf(url) != referenceHost) return NewWindowDecision::OpenExternally;
  return NewWindowDecision::Ignore;
}
