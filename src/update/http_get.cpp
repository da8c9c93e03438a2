#include "update/http_get.h"

#include <curl/curl.h>

#include <mutex>

namespace {

// A manifest is two short lines; anything bigger is not one.
constexpr size_t kMaxManifestBytes = 1 << 20;

size_t appendBody(char* data, size_t size, size_t count, void* user) {
  auto* body = static_cast<std::string*>(user);
  size_t n = size * count;
  if (body->size() + n > kMaxManifestBytes) return 0;
  body->append(data, n);
  return n;
}

}  // namespace

void ondrelInitCurl() {
  static std::once_flag once;
  std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

HttpAnswer ondrelHttpGet(const std::string& url) {
  ondrelInitCurl();
  HttpAnswer answer;
  CURL* curl = curl_easy_init();
  if (!curl) {
    answer.error = "could not create a transfer";
    return answer;
  }
  char errorText[CURL_ERROR_SIZE] = "";
  curl_slist* headers = curl_slist_append(nullptr, "Cache-Control: no-cache");
  headers = curl_slist_append(headers, "Pragma: no-cache");
  curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl, CURLOPT_HTTPGET, 1L);
  curl_easy_setopt(curl, CURLOPT_TIMEOUT, 20L);
  curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, 1L);
  curl_easy_setopt(curl, CURLOPT_MAXREDIRS, 16L);
  curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(curl, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(curl, CURLOPT_USERAGENT, kUpdaterUserAgent);
  curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
  curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, errorText);
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, appendBody);
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, &answer.body);

  CURLcode result = curl_easy_perform(curl);
  long status = 0;
  curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
  answer.status = status > 0 ? status : -1;
  answer.ok = result == CURLE_OK;
  if (!answer.ok) answer.error = *errorText ? errorText : curl_easy_strerror(result);
  curl_slist_free_all(headers);
  curl_easy_cleanup(curl);
  return answer;
}
