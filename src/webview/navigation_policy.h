#pragma once

#include <string>

// Which navigations leave the app. The reference host is the host of the
// server the window loaded, compared exactly (no case folding, no port).

enum class NavigationDecision { Allow, OpenExternally };
enum class NewWindowDecision { Ignore, OpenExternally };

// Only a clicked http(s) link to another host leaves the view; scripts,
// redirects, forms and other schemes stay.
NavigationDecision navigationDecision(bool isLinkClick, const std::string& url, const std::string& referenceHost);

// Pages never open new windows: other hosts go to the browser, the rest is
// dropped.
NewWindowDecision newWindowDecision(const std::string& url, const std::string& referenceHost);
