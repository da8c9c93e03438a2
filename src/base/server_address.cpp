#include "base/server_address.h"

#include <glib.h>

#include <algorithm>

#include "build_config.h"

namespace {

// White space and line breaks in the Unicode sense: a pasted address often
// carries a no-break space.
std::string trim(const std::string& text) {
  const char* begin = text.c_str();
  const char* end = begin + text.size();
  while (begin < end) {
    gunichar c = g_utf8_get_char_validated(begin, end - begin);
    if (c == static_cast<gunichar>(-1) || c == static_cast<gunichar>(-2) || !g_unichar_isspace(c)) break;
    begin = g_utf8_next_char(begin);
  }
  while (end > begin) {
    const char* prev = g_utf8_find_prev_char(begin, end);
    if (!prev) break;
    gunichar c = g_utf8_get_char_validated(prev, end - prev);
    if (c == static_cast<gunichar>(-1) || c == static_cast<gunichar>(-2) || !g_unichar_isspace(c)) break;
    end = prev;
  }
  return std::string(begin, end);
}

std::string lower(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return g_ascii_tolower(c); });
  return text;
}

struct UrlParts {
  std::string scheme;
  std::string host;
};

std::optional<UrlParts> splitUrl(const std::string& url) {
  g_autofree gchar* scheme = nullptr;
  g_autofree gchar* host = nullptr;
  if (!g_uri_split(url.c_str(), G_URI_FLAGS_NON_DNS, &scheme, nullptr, &host, nullptr, nullptr, nullptr, nullptr,
                   nullptr)) {
    return std::nullopt;
  }
  return UrlParts{scheme ? scheme : "", host ? host : ""};
}

}  // namespace

std::optional<std::string> ondrelExpandServerInput(const Json& value) {
  if (!value.is_string()) return std::nullopt;
  std::string text = trim(value.get<std::string>());
  if (text.empty()) return text;
  if (text.find_first_of(".:/\\?#") == std::string::npos) {
    if (lower(text) == "localhost") return text;
    return text + ".on." + ondrel::build::kServiceDomain;
  }
  return text;
}

std::optional<std::string> ondrelNormalizeServer(const Json& value) {
  if (!value.is_string()) return std::nullopt;
  std::string text = trim(value.get<std::string>());
  if (text.empty()) return std::nullopt;
  if (text.find("://") == std::string::npos) text = "https://" + text;
  while (text.size() >= 2 && text.back() == '/') text.pop_back();
  auto parts = splitUrl(text);
  if (!parts || parts->host.empty()) return std::nullopt;
  std::string scheme = lower(parts->scheme);
  if (scheme != "http" && scheme != "https") return std::nullopt;
  return text;
}

std::string ondrelRawHostOf(const std::string& url) {
  auto parts = splitUrl(url);
  return parts ? parts->host : std::string();
}

std::string ondrelSchemeOf(const std::string& url) {
  auto parts = splitUrl(url);
  return parts ? lower(parts->scheme) : std::string();
}

std::string ondrelServerHostOf(const Json& value) {
  if (!value.is_string()) return {};
  return lower(ondrelRawHostOf(value.get<std::string>()));
}

bool ondrelIsLoopbackHost(const std::string& host) {
  return host == "localhost" || host == "127.0.0.1" || host == "::1";
}

bool ondrelIsAllowedServerURL(const std::string& url) {
  std::string host = ondrelServerHostOf(url);
  if (host.empty()) return false;
  if (ondrelIsLoopbackHost(host)) return true;
  // Plain http is for development servers on this machine only: anywhere
  // else, whoever sits on the network between would get the bridge.
  if (ondrelSchemeOf(url) != "https") return false;
  const std::string domain = lower(ondrel::build::kServiceDomain);
  if (host == domain) return true;
  const std::string suffix = "." + domain;
  return host.size() > suffix.size() && host.compare(host.size() - suffix.size(), suffix.size(), suffix) == 0;
}

std::string ondrelOriginOf(const std::string& url) {
  g_autofree gchar* scheme = nullptr;
  g_autofree gchar* host = nullptr;
  gint port = -1;
  if (!g_uri_split(url.c_str(), G_URI_FLAGS_NON_DNS, &scheme, nullptr, &host, &port, nullptr, nullptr, nullptr,
                   nullptr)) {
    return {};
  }
  const std::string s = lower(scheme ? scheme : ""), h = lower(host ? host : "");
  if ((s != "http" && s != "https") || h.empty()) return {};
  std::string origin = s + "://" + (h.find(':') != std::string::npos ? "[" + h + "]" : h);
  if (port >= 0 && port != (s == "https" ? 443 : 80)) origin += ":" + std::to_string(port);
  return origin;
}
