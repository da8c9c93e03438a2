#pragma once

#include <string>

inline constexpr const char* kUpdaterUserAgent = "ondrel-linux-updater";

struct HttpAnswer {
  bool ok = false;       // the transfer completed
  long status = -1;      // the final HTTP status, -1 without an HTTP answer
  std::string body;
  std::string error;     // curl's message when !ok
};

// A blocking GET of the manifest: redirects followed, 20 s in all, never
// from a cache, with the updater's User-Agent. Call off the main thread.
HttpAnswer ondrelHttpGet(const std::string& url);

// libcurl's process-wide set-up, done once before the first transfer.
void ondrelInitCurl();
