#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

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
  // Fire and forget: the outcome is not observed. Scripts reach the page in
  // the order given.
  virtual void evaluateScript(std::string script) = 0;
  // For diagnostics that want the result text (or the error text); after
  // the scripts given before it.
  virtual void evaluateScriptForResult(const std::string& script,
                                       std::function<void(const std::string& result, const std::string& error)> done) = 0;
  // Folder chooser attached to the main window; nullopt when cancelled.
  virtual void pickDirectory(const std::optional<std::string>& message,
                             std::function<void(std::optional<std::string> path)> done) = 0;
  // nullopt removes the tint.
  virtual void setChromeScrim(const std::optional<ScrimColor>& color) = 0;
  virtual void openInBrowser(const std::string& url) = 0;
};

// Makes the script of one reply to a native-action request; a copy can do
// so on any thread.
class ReplyText {
 public:
  ReplyText(std::string guard, const Json& reqId);
  std::string operator()(bool ok, const Json& value) const;
  // For large values: appendJson writes the value's JSON text straight into
  // the script, so a big payload is not copied through intermediate
  // strings. sizeHint is the expected JSON length.
  std::string operator()(bool ok, size_t sizeHint, const std::function<void(std::string&)>& appendJson) const;

 private:
  std::string guard_;
  std::string idText_;
};

class SerialQueue;

// The page <-> native channel and the table of native actions. One per
// process; main thread only (background work hops back with runOnMain
// before replying).
class Bridge {
 public:
  // reqId is the page's id, echoed unchanged; args is always an array, the
  // action's to keep (a payload can be moved out rather than copied).
  using NativeAction = std::function<void(const Json& reqId, Json& args)>;

  // pageOrigin: the instance's origin; what the bridge evaluates in the page
  // does nothing once the top document is on any other.
  Bridge(BridgeHost& host, const std::string& pageOrigin, AgentSounds::Player soundPlayer = systemSoundPlayer());
  Bridge(const Bridge&) = delete;
  Bridge& operator=(const Bridge&) = delete;
  ~Bridge();

  BridgeHost& host() { return host_; }

  // A message posted by the page to the "ondrel" handler.
  void didReceiveScriptMessage(Json body);

  // Answers a native-action request: exactly one reply per request.
  void replyToJS(const Json& reqId, bool ok, const Json& value);

  // For work that would keep the window from answering (file input and
  // output): runs on the bridge's file thread, one piece after another in
  // the order given, and its reply (made there) goes to the page from the
  // main thread.
  void replyFromFileThread(const Json& reqId, std::function<std::string(const ReplyText& reply)> work);

  // Calls a page handler; its answer is only logged.
  void invokeHandler(const std::string& handler, const Json& args, const std::string& desc);

  void handleNativeAction(const Json& reqId, const Json& name, Json args);

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
  std::map<std::string, NativeAction, std::less<>> actions_;
  // Started with the first file action. Work still running when the bridge
  // goes sees `alive_` gone and replies to nobody.
  std::unique_ptr<SerialQueue> fileThread_;
  std::shared_ptr<Bridge*> alive_;
};

// Native-to-page calls still waiting for the page's answer, by call id.
// Entries whose answer never comes stay for the life of the process.
extern std::map<std::string, std::function<void(const Json& answer)>> gPending;

// The tint for "setChromeScrim" [r, g, b, a]: nullopt removes it.
std::optional<ScrimColor> scrimColorFromArgs(const Json& args);

// The JavaScript texts the native side evaluates in the page.
std::string bridgeReplyExpression(const std::string& reqIdText, bool ok, const std::string& valueJson);
// The reply expression is head + value JSON + tail, for writers that put a
// large value in place.
std::string bridgeReplyHead(const std::string& reqIdText, bool ok);
inline constexpr std::string_view kBridgeReplyTail = ") : console.error('__resolve missing') ";
std::string bridgeInvokeExpression(const std::string& callId, const std::string& handler, const std::string& argsJson);

// The text form of a request id as it goes between the quotes of a reply.
std::string bridgeIdText(const Json& reqId);
