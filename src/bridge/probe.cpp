// After every finished page load: check that the page brought its half of
// the bridge, then make one call through it so a broken page shows up in
// the log.
#include "base/log.h"
#include "bridge/bridge.h"

namespace {

std::string orNull(const std::string& text) { return text.empty() ? "(null)" : text; }

}  // namespace

void Bridge::pageDidFinishLoading() {
  logToSystemOnly("[Probe] page finished loading");
  host_.evaluateScriptForResult(
      "String(window.__ondrel ? Object.keys(window.__ondrel) : 'NO __ondrel')",
      [](const std::string& result, const std::string& error) {
        logToSystemOnly("[Probe] window.__ondrel keys = " + orNull(result) + " (err " + orNull(error) + ")");
      });
  host_.evaluateScriptForResult("String(window.__ondrel && typeof window.__ondrel.invoke)",
                                [](const std::string& result, const std::string& error) {
                                  logToSystemOnly("[Probe] typeof invoke = " + orNull(result) + " (err " +
                                                  orNull(error) + ")");
                                });
  later_(1.0, [this] {
    logLine("[Probe] auto-firing an RPC call to 'greet'");
    invokeHandler("greet", Json::array({"probe", "auto"}), "startup probe");
  });
}
