#include "base/server_address.h"

#include <gtest/gtest.h>

#include <cctype>
#include <optional>
#include <string>

#include "build_config.h"

namespace {

const std::string D = ondrel::build::kServiceDomain;

std::string upper(std::string text) {
  for (auto& c : text) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return text;
}

struct TextCase {
  Json input;
  std::optional<std::string> expected;
};

TEST(ServerAddress, ExpandTurnsBareNamesIntoInstanceHosts) {
  const TextCase cases[] = {
      {"team", "team.on." + D},
      {"Team", "Team.on." + D},
      {"LOCALHOST", "LOCALHOST"},
      {"localhost", "localhost"},
      {"  team \t\n", "team.on." + D},
      {"team.example", "team.example"},
      {"localhost:3000", "localhost:3000"},
      {"host/path", "host/path"},
      {"a\\b", "a\\b"},
      {"name?x", "name?x"},
      {"name#x", "name#x"},
      {"", ""},
      {"   \n ", ""},
      {42, std::nullopt},
      {nullptr, std::nullopt},
      {Json::array({"team"}), std::nullopt},
  };
  for (const auto& c : cases) EXPECT_EQ(ondrelExpandServerInput(c.input), c.expected) << c.input.dump();
}

TEST(ServerAddress, NormaliseKeepsTextAsTypedMinusTrailingSlashes) {
  const TextCase cases[] = {
      {"team.on." + D + "/", "https://team.on." + D},
      {"http://localhost:3000/", "http://localhost:3000"},
      {"localhost:3000", "https://localhost:3000"},
      {"https://host///", "https://host"},
      {"  https://host/  ", "https://host"},
      {"HTTPS://Team.On." + D + ":8443/Path?q=A#Frag", "HTTPS://Team.On." + D + ":8443/Path?q=A#Frag"},
      {"https://host/a/?x=1#f/", "https://host/a/?x=1#f"},
      {"http://[::1]:8080/", "http://[::1]:8080"},
      {"ftp://x." + D, std::nullopt},
      {"file:///etc/passwd", std::nullopt},
      {"https://", std::nullopt},
      {"http:///path", std::nullopt},
      {"", std::nullopt},
      {"   ", std::nullopt},
      {42, std::nullopt},
      {true, std::nullopt},
  };
  for (const auto& c : cases) EXPECT_EQ(ondrelNormalizeServer(c.input), c.expected) << c.input.dump();
}

TEST(ServerAddress, AllowedOnlyForServiceDomainAndLoopback) {
  const std::pair<std::string, bool> cases[] = {
      {"https://team.on." + D, true},
      {"https://a.b." + D, true},
      {"https://" + D, true},
      {"http://team.on." + D + ":8080/x", false},
      {"http://" + D, false},
      {"https://TEAM.ON." + upper(D) + ":8443", true},
      {"https://evil" + D, false},
      {"https://" + D + ".evil.com", false},
      {"http://[::1]:8080", true},
      {"http://127.0.0.1:3000", true},
      {"http://localhost", true},
      {"http://LocalHost:3000", true},
      {"http://127.0.0.2", false},
      {"http://[::2]", false},
      {"http://0.0.0.0", false},
      {"https://example.com", false},
      {"not a url", false},
      {"", false},
  };
  for (const auto& [url, allowed] : cases) EXPECT_EQ(ondrelIsAllowedServerURL(url), allowed) << url;
}

TEST(ServerAddress, HostOfIsLowerCasedWithoutBracketsOrPort) {
  const std::pair<Json, std::string> cases[] = {
      {"https://Team.ON.Example:8443/Path?q=1#f", "team.on.example"},
      {"http://[::1]:8080/", "::1"},
      {"http://[FE80::1]/", "fe80::1"},
      {"http://127.0.0.1:3000", "127.0.0.1"},
      {42, ""},
      {nullptr, ""},
      {"no host here", ""},
      {"https://", ""},
      {"", ""},
  };
  for (const auto& [input, host] : cases) EXPECT_EQ(ondrelServerHostOf(input), host) << input.dump();
}

}  // namespace

TEST(ServerAddress, OriginIsWhatThePageReadsInLocationOrigin) {
  const std::pair<std::string, std::string> cases[] = {
      {"https://Team.on.Example.COM", "https://team.on.example.com"},
      {"HTTP://127.0.0.1:8123/path?q#f", "http://127.0.0.1:8123"},
      {"https://host:443/", "https://host"},
      {"http://host:80", "http://host"},
      {"http://host:443", "http://host:443"},
      {"http://[::1]:9000/", "http://[::1]:9000"},
      {"file:///etc/passwd", ""},
      {"not a url", ""},
  };
  for (const auto& [url, origin] : cases) EXPECT_EQ(ondrelOriginOf(url), origin) << url;
}
