#include "webview/navigation_policy.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>

namespace {

const std::string kHost = "demo.on.ondrel.example";

TEST(NavigationPolicy, OnlyClickedWebLinksToOtherHostsLeaveTheView) {
  using D = NavigationDecision;
  const std::tuple<bool, std::string, D> cases[] = {
      {true, "https://example.org/page", D::OpenExternally},
      {true, "HTTPS://example.org/", D::OpenExternally},
      {true, "https://DEMO.on.ondrel.example/x", D::OpenExternally},  // hosts compare exactly
      {false, "https://example.org/page", D::Allow},  // script, redirect, form
      {true, "https://demo.on.ondrel.example/chat?x=1", D::Allow},
      {true, "http://demo.on.ondrel.example:8443/", D::Allow},  // the port is not part of the host
      {true, "mailto:someone@example.org", D::Allow},
      {true, "", D::Allow},
  };
  for (const auto& [clicked, url, want] : cases) EXPECT_EQ(navigationDecision(clicked, url, kHost), want) << url;
  // A server address without a host makes every web link external.
  EXPECT_EQ(navigationDecision(true, "http://localhost/", ""), D::OpenExternally);
  EXPECT_EQ(navigationDecision(true, "mailto:a@b", ""), D::Allow);
}

TEST(NavigationPolicy, NewWindowsNeverOpenInTheApp) {
  using D = NewWindowDecision;
  const std::pair<std::string, D> cases[] = {
      {"https://example.org/", D::OpenExternally},
      {"https://demo.on.ondrel.example/other", D::Ignore},
      {"mailto:someone@example.org", D::Ignore},
      {"javascript:void(0)", D::Ignore},
      {"", D::Ignore},
  };
  for (const auto& [url, decision] : cases) EXPECT_EQ(newWindowDecision(url, kHost), decision) << url;
}

}  // namespace
