#pragma once

#include <curl/curl.h>

#include <optional>
#include <string>

inline constexpr const char* kUpdaterUserAgent = "ondrel-linux-updater";

// Where update files (manifest, archive, signature) may come from: https
// from anywhere; plain http only from this machine (127.0.0.1, ::1,
// localhost), where no network lies between. nullopt when url may be
// fetched, else why not. The URL is read by the parser that fetches it, so
// the two cannot disagree about its host.
std::optional<std::string> ondrelUpdateURLRefusal(const std::string& url);

// One GET of an update file under that rule. Redirects are followed to
// https only, even from a plain-http address on this machine: a redirect is
// never the way onto plain http. The handle carries the updater's
// User-Agent and never answers from a cache; callers add time limits and
// where the body goes.
class UpdateTransfer {
 public:
  explicit UpdateTransfer(const std::string& url);
  ~UpdateTransfer();
  UpdateTransfer(const UpdateTransfer&) = delete;
  UpdateTransfer& operator=(const UpdateTransfer&) = delete;

  // nullptr when the URL is refused or no transfer could be made;
  // perform() then says why.
  CURL* handle() const { return curl_; }
  // Blocks until the transfer ends: "" when it completed, else the reason.
  std::string perform();
  // The final HTTP status, -1 without an HTTP answer.
  long status() const;

 private:
  CURL* curl_ = nullptr;
  CURLU* url_ = nullptr;
  curl_slist* headers_ = nullptr;
  std::string refusal_;
  char errorText_[CURL_ERROR_SIZE] = "";
};

// libcurl's process-wide set-up, done once before the first transfer.
void ondrelInitCurl();
