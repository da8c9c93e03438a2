#include "update/manifest.h"

#include <glib.h>

#include "base/log.h"
#include "base/server_address.h"
#include "base/settings.h"
#include "build_config.h"
#include "update/version.h"

namespace {

bool isLineBreak(gunichar c) {
  return (c >= 0x0A && c <= 0x0D) || c == 0x85 || c == 0x2028 || c == 0x2029;
}

bool isBlank(gunichar c) {
  return c == '\t' || g_unichar_type(c) == G_UNICODE_SPACE_SEPARATOR || isLineBreak(c);
}

std::string trimBlanks(const char* begin, const char* end) {
  while (begin < end && isBlank(g_utf8_get_char(begin))) begin = g_utf8_next_char(begin);
  while (end > begin) {
    const char* prev = g_utf8_prev_char(end);
    if (!isBlank(g_utf8_get_char(prev))) break;
    end = prev;
  }
  return std::string(begin, end);
}

}  // namespace

std::optional<std::string> ondrelUpdateManifestURL() {
  if (auto url = ondrelConfigString("updateUrl")) return ondrelNormalizeServer(*url);
  std::string base = ondrelConfigString("updateBaseUrl").value_or(ondrel::build::kUpdateBaseUrl);
  auto normalized = ondrelNormalizeServer(base);
  if (!normalized) return std::nullopt;
  return *normalized + kManifestPath;
}

std::vector<std::string> ondrelManifestLines(const std::string& body) {
  std::vector<std::string> lines;
  if (!g_utf8_validate(body.data(), static_cast<gssize>(body.size()), nullptr)) return lines;
  const char* p = body.data();
  // A byte-order mark (what some editors put first) is no part of the text.
  if (body.rfind("\xEF\xBB\xBF", 0) == 0) p += 3;
  const char* end = body.data() + body.size();
  const char* start = p;
  auto take = [&](const char* stop) {
    std::string piece = trimBlanks(start, stop);
    if (!piece.empty()) lines.push_back(std::move(piece));
  };
  while (p < end) {
    const char* next = g_utf8_next_char(p);
    if (isLineBreak(g_utf8_get_char(p))) {
      take(p);
      start = next;
    }
    p = next;
  }
  take(end);
  return lines;
}

bool ondrelContainsDecimalDigit(const std::string& text) {
  if (!g_utf8_validate(text.data(), static_cast<gssize>(text.size()), nullptr)) return false;
  for (const char* p = text.data(); p < text.data() + text.size(); p = g_utf8_next_char(p))
    if (g_unichar_isdigit(g_utf8_get_char(p))) return true;
  return false;
}

std::string ondrelZipURL(const std::string& manifestUrl, const std::string& zipName) {
  // As written, escapes and all; query and fragment stay with the URL.
  g_autoptr(GUri) manifest = g_uri_parse(manifestUrl.c_str(), G_URI_FLAGS_ENCODED, nullptr);
  if (!manifest) return {};
  std::string path = g_uri_get_path(manifest);
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  size_t slash = path.rfind('/');
  std::string directory = slash == std::string::npos ? std::string("/") : path.substr(0, slash + 1);

  std::string name = zipName;
  while (!name.empty() && name.front() == '/') name.erase(0, 1);
  g_autofree gchar* escaped = g_uri_escape_string(name.c_str(), "!$&'()*+,;=:@/", FALSE);
  g_autoptr(GUri) zip = g_uri_build(G_URI_FLAGS_ENCODED, g_uri_get_scheme(manifest), g_uri_get_userinfo(manifest),
                                    g_uri_get_host(manifest), g_uri_get_port(manifest), (directory + escaped).c_str(),
                                    g_uri_get_query(manifest), g_uri_get_fragment(manifest));
  g_autofree gchar* text = g_uri_to_string(zip);
  return text;
}

std::optional<UpdateOffer> ondrelEvaluateManifest(const std::string& manifestUrl, bool transferOk, long httpStatus,
                                                  const std::string& body, const std::string& current) {
  if (!transferOk || httpStatus != 200) {
    logLine("[Update] manifest unavailable (HTTP " + std::to_string(httpStatus) + ") — skipping check");
    return std::nullopt;
  }
  auto lines = ondrelManifestLines(body);
  if (lines.empty()) {
    logLine("[Update] manifest empty");
    return std::nullopt;
  }
  const std::string& remote = lines[0];
  std::string zipName = lines.size() > 1 ? lines[1] : std::string();
  if (!ondrelContainsDecimalDigit(remote)) {
    logLine("[Update] manifest does not look like a version (" + remote + ") — skipping");
    return std::nullopt;
  }
  logLine("[Update] current " + current + " / remote " + remote);
  if (ondrelCompareVersions(current, remote) >= 0) {
    logLine("[Update] already up to date");
    return std::nullopt;
  }
  if (zipName.empty()) {
    logLine("[Update] manifest missing the zip filename on line 2");
    return std::nullopt;
  }
  return UpdateOffer{remote, current, ondrelZipURL(manifestUrl, zipName)};
}
