#pragma once

#include <string>

struct HttpAnswer {
  bool ok = false;       // the transfer completed
  long status = -1;      // the final HTTP status, -1 without an HTTP answer
  std::string body;
  std::string error;     // why not, when !ok (a refused URL included)
};

// A blocking GET of a small update file (the manifest, a signature) under
// the updater's transport rules: 20 s in all, never from a cache. Call off
// the main thread.
HttpAnswer ondrelHttpGet(const std::string& url);
