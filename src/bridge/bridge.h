#pragma once

#include <functional>
#include <map>
#include <optional>
#include <string>

#include "base/json.h"
#include "bridge/agent_sounds.h"

struct ScrimColor {
  double r = 0, g = 0, b = 0, a = 0;
};

// What the bridge needs from the window. The GTK layer implements it; tests
// use a fake. Every call is made on the main thread.
class BridgeHost {
 public:
  virtual ~BridgeHost() = default;
  // Fire and forget: the outcome is not observed.
  virtual void evaluateScript(const std::string& script) = 0;
  // For diagnostics that want the result text (or the error text).
  virtual void evaluateScriptForResult(const std::string& script,
                                       std::function<void(const std::string& result, const std::string& error)> done) = 0;
  // Folder chooser attached to the main window; nullopt when cancelled.
  virtual void pickDirectory(const std::optional<std::string>& message,
                             std::function<void(std::optional<std::string> path)> done) = 0;
  // nullopt removes the tint.
  virtual void setChromeScrim(const std::optional<ScrimColor>& color) = 0;
  virtual void openInBrowser(const std::string& url) = 0;
};

// The page <-> native channel and the table of native actions. One per
// process; main thread only (background work hops back with runOnMain
// before replying).
class Bridge {
 public:
  // reqId is the page's id, echoed unchanged; args is always an array.
  using NativeAction = std::function<void(const Json& reqId, const Json& args)>;

  // pageOrigin: the instance's origin; what the bridge evaluates in the page
  // does nothing once the top document is on any other.
  Bridge(BridgeHost& host, const std::string& pageOrigin, AgentSounds::Player soundPlayer = systemSoundPlayer());
  Bridge(const Bridge&) = delete;
  Bridge& operator=(const Bridge&) = delete;

  BridgeHost& host() { return host_; }

  // A message posted by the page to the "ondrel" handler.
  void didReceiveScriptMessage(const Json& body);

  // Answers a native-action request: exactly one reply per request.
  void replyToJS(const Json& reqId, bool ok, const Json& value);

  // The same for large values: appendJson writes the value's JSON text
  // straight into the reply expression, so a big payload is not copied
  // through intermediate strings. sizeHint is the expected JSON length.
  void replyToJSWithJsonText(const Json& reqId, bool ok, size_t sizeHint,
                             const std::function<void(std::string&)>& appendJson);

  // Calls a page handler; its answer is only logged.
  void invokeHandler(const std::string& handler, const Json& args, const std::string& desc);

  void handleNativeAction(const Json& reqId, const Json& name, const Json& args);

  // Subsystems add their actions here at start-up (names are unique).
  void addAction(const std::string& name, NativeAction action);

  // Logs and hands a URL to the user's default browser.
  void openExternally(const std::string& url);

  // After every finished main-frame load.
  void pageDidFinishLoading();

 private:
  void addBuiltInActions();

  void evaluateGuarded(const std::string& expression);

  BridgeHost& host_;
  const std::string guard_;
  AgentSounds sounds_;
  std::map<std::string, NativeAction> actions_;
};

// Native-to-page calls still waiting for the page's answer, by call id.
// Entries whose answer never comes stay for the life of the process.
extern std::map<std::string, std::function<void(const Json& answer)>> gPending;

// The tint for "setChromeScrim" [r, g, b, a]: nullopt removes it.
std::optional<ScrimColor> scrimColorFromArgs(const Json& args);

// The JavaScript texts the native side evaluates in the page.
std::string bridgeReplyExpression(const std::string& reqIdText, bool ok, const std::string& valueJson);
std::string bridgeInvokeExpression(const std::string& callId, const std::string& handler, const std::string& argsJson);

// The text form of a request id as it goes between the quotes of a reply.
std::string bridgeIdText(const Json& reqId);
