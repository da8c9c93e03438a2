#include "update/http_get.h"

#include "update/update_transfer.h"

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

HttpAnswer ondrelHttpGet(const std::string& url) {
  HttpAnswer answer;
  UpdateTransfer transfer(url);
  if (CURL* curl = transfer.handle()) {
    curl_easy_setopt(curl, CURLOPT_TIMEOUT, 20L);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, appendBody);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &answer.body);
  }
  answer.error = transfer.perform();
  answer.ok = answer.error.empty();
  answer.status = transfer.status();
  return answer;
}
