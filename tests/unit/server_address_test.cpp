#include "base/server_address.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "service_domain.h"

namespace {

using Maybe = std::optional<std::string>;

TEST(ServerAddress, ExpandTurnsBareNamesIntoInstanceHosts) {
  const std::pair<Json, Maybe> cases[] = {
      {"Team", "Team.on." + D},     {"  team \t\n", "team.on." + D}, {"LOCALHOST", "LOCALHOST"},
      {"team.example", "team.example"}, {"localhost:3000", "localhost:3000"}, {"host/path", "host/path"},
      {"a\\b", "a\\b"},             {"   \n ", ""},               {42, std::nullopt},
  };
  for (const auto& [input, expected] : cases) EXPECT_EQ(ondrelExpandServerInput(input), expected) << input.dump();
}

TEST(ServerAddress, NormaliseKeepsTextAsTypedMinusTrailingSlashes) {
  const std::pair<Json, Maybe> cases[] = {
      {"team.on." + D + "/", "https://team.on." + D},
      {"  https://host///  ", "https://host"},
      {"HTTPS://Team.On." + D + ":8443/Path?q=A#Frag", "HTTPS://Team.On." + D + ":8443/Path?q=A#Frag"},
      {"https://host/a/?x=1#f/", "https://host/a/?x=1#f"},
      {"http://[::1]:8080/", "http://[::1]:8080"},
      {"ftp://x." + D, std::nullopt},
      {"http:///path", std::nullopt},
      {"   ", std::nullopt},
      {true, std::nullopt},
  };
  for (const auto& [input, expected] : cases) EXPECT_EQ(ondrelNormalizeServer(input), expected) << input.dump();
}

TEST(ServerAddress, AllowedOnlyForServiceDomainAndLoopback) {
  const std::pair<std::string, bool> cases[] = {
      {"https://a.b." + D, true},          {"https://" + D, true},
      {"https://TEAM.ON." + D + ":8443", true},
      {"http://team.on." + D + ":8080/x", false},
      {"https://evil" + D, false},         {"https://" + D + ".evil.com", false},
      {"http://[::1]:8080", true},         {"http://127.0.0.1:3000", true},
      {"http://LocalHost:3000", true},     {"http://127.0.0.2", false},
      {"not a url", false},
  };
  for (const auto& [url, allowed] : cases) EXPECT_EQ(ondrelIsAllowedServerURL(url), allowed) << url;
}

TEST(ServerAddress, HostAndOriginAsThePageSeesThem) {
  EXPECT_EQ(ondrelServerHostOf(42), "");
  const std::pair<std::string, std::string> origins[] = {
      {"https://Team.on.Example.COM", "https://team.on.example.com"},
      {"HTTP://127.0.0.1:8123/path?q#f", "http://127.0.0.1:8123"},
      {"https://host:443/", "https://host"},
      {"http://host:443", "http://host:443"},
      {"http://[::1]:9000/", "http://[::1]:9000"},
      {"file:///etc/passwd", ""},
  };
  for (const auto& [url, origin] : origins) EXPECT_EQ(ondrelOriginOf(url), origin) << url;
}

}  // namespace
