#pragma once

#include <webkit2/webkit2.h>

#include <functional>
#include <string>

// Where the main view may go. A link off the instance, and any request for a
// new window, goes to the user's browser instead: no second web view is ever
// made. Responses the view cannot show become downloads.
struct NavigationPolicy {
  // The loaded server's host, asked at each decision (the server can change
  // while the view lives).
  std::function<std::string()> referenceHost;
  std::function<void(const std::string& url)> openExternally;
};

// The policy lives as long as the view.
void connectNavigationPolicy(WebKitWebView* view, NavigationPolicy policy);
