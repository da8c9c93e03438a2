#include "update/update_transfer.h"

#include <glib.h>

#include <mutex>

#include "base/server_address.h"

namespace {

std::string lowerCopy(const char* text) {
  g_autofree gchar* lowered = g_ascii_strdown(text ? text : "", -1);
  return lowered;
}

// The parsed URL when it may be fetched (the caller owns it), else nullptr
// and why not.
CURLU* admit(const std::string& url, std::string& refusal) {
  CURLU* parsed = curl_url();
  char* scheme = nullptr;
  char* host = nullptr;
  bool readable = parsed && curl_url_set(parsed, CURLUPART_URL, url.c_str(), 0) == CURLUE_OK &&
                  curl_url_get(parsed, CURLUPART_SCHEME, &scheme, 0) == CURLUE_OK &&
                  curl_url_get(parsed, CURLUPART_HOST, &host, 0) == CURLUE_OK;
  std::string s = readable ? lowerCopy(scheme) : std::string();
  std::string h = readable ? lowerCopy(host) : std::string();
  curl_free(scheme);
  curl_free(host);
  if (h.size() > 2 && h.front() == '[' && h.back() == ']') h = h.substr(1, h.size() - 2);
  if ((s == "https" && !h.empty()) || (s == "http" && ondrelIsLoopbackHost(h))) return parsed;
  curl_url_cleanup(parsed);
  refusal = s == "http" ? "“" + url +
                              "” is plain http, which the updater accepts only from this machine "
                              "(127.0.0.1, ::1, localhost)"
                        : "“" + url + "” is not an https address";
  return nullptr;
}

}  // namespace

void ondrelInitCurl() {
  // libcurl's own process-wide state, set up once before the first transfer
  // of any thread; the flag only records that it was.
  static std::once_flag once;
  std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

std::optional<std::string> ondrelUpdateURLRefusal(const std::string& url) {
  std::string refusal;
  CURLU* parsed = admit(url, refusal);
  if (!parsed) return refusal;
  curl_url_cleanup(parsed);
  return std::nullopt;
}

UpdateTransfer::UpdateTransfer(const std::string& url) {
  ondrelInitCurl();
  url_ = admit(url, refusal_);
  if (!url_) return;
  curl_ = curl_easy_init();
  if (!curl_) return;
  headers_ = curl_slist_append(nullptr, "Cache-Control: no-cache");
  headers_ = curl_slist_append(headers_, "Pragma: no-cache");
  // The URL goes over as parsed above, not as text to be read again.
  curl_easy_setopt(curl_, CURLOPT_CURLU, url_);
  curl_easy_setopt(curl_, CURLOPT_HTTPGET, 1L);
  curl_easy_setopt(curl_, CURLOPT_FOLLOWLOCATION, 1L);
  curl_easy_setopt(curl_, CURLOPT_MAXREDIRS, 16L);
  curl_easy_setopt(curl_, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(curl_, CURLOPT_REDIR_PROTOCOLS_STR, "https");
  curl_easy_setopt(curl_, CURLOPT_USERAGENT, kUpdaterUserAgent);
  curl_easy_setopt(curl_, CURLOPT_HTTPHEADER, headers_);
  curl_easy_setopt(curl_, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(curl_, CURLOPT_ERRORBUFFER, errorText_);
}

UpdateTransfer::~UpdateTransfer() {
  if (curl_) curl_easy_cleanup(curl_);
  curl_slist_free_all(headers_);
  if (url_) curl_url_cleanup(url_);
}

std::string UpdateTransfer::perform() {
  if (!url_) return refusal_;
  if (!curl_) return "could not create a transfer";
  CURLcode result = curl_easy_perform(curl_);
  if (result == CURLE_OK) return "";
  // The address itself was admitted, so a protocol refused now is the one
  // a redirect led to; after it the transfer's URL is that redirect's.
  char* target = nullptr;
  if (result == CURLE_UNSUPPORTED_PROTOCOL && status() / 100 == 3 &&
      curl_easy_getinfo(curl_, CURLINFO_EFFECTIVE_URL, &target) == CURLE_OK && target)
    return "refused a redirect to “" + std::string(target) + "”: update files are only followed to https";
  return *errorText_ ? std::string(errorText_) : std::string(curl_easy_strerror(result));
}

long UpdateTransfer::status() const {
  long status = 0;
  if (curl_) curl_easy_getinfo(curl_, CURLINFO_RESPONSE_CODE, &status);
  return status > 0 ? status : -1;
}
