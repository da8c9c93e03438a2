#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/json.h"
#include "base/main_thread.h"
#include "bridge/agent_sounds.h"
#include "bridge/reply_text.h"

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

class SerialQueue;

// The page <-> native channel and the table of native actions. One per
// process; main thread only (background work hops back with runOnMain
// before replying).
class Bridge {
 public:
  // reqId is the page's id, echoed unchanged; args is always an array, the
  // action's to keep (a payload can be moved out rather than copied).
  using NativeAction = std::function<void(const Json& reqId, Json& args)>;

  // Runs fn on the main thread after a delay. The page-load probe waits
  // through it, so tests can give one that does not wait.
  using Later = std::function<void(double seconds, std::function<void()> fn)>;

  // pageOrigin: the instance's origin; what the bridge evaluates in the page
  // does nothing once the top document is on any other.
  Bridge(BridgeHost& host, const std::string& pageOrigin, AgentSounds::Player soundPlayer = systemSoundPlayer(),
         Later later = runOnMainAfter);
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
  void replyFromFileThread(const Json& reqId, std::function<std::vector<std::string>(const ReplyText& reply)> work);

  // Calls a page handler; its answer is only logged.
  void invokeHandler(const std::string& handler, const Json& args, const std::string& desc);
  bool awaitsAnswer(const std::string& callId) const { return pending_.count(callId) > 0; }

  void handleNativeAction(const Json& reqId, const Json& name, Json args);

  // Subsystems add their actions here at start-up (names are unique).
  void addAction(const std::string& name, NativeAction action);

  // Logs and hands a URL to the user's default browser.
  void openExternally(const std::string& url);

  // After every finished main-frame load.
  void pageDidFinishLoading();

 private:
  void addBuiltInActions();
  void addFileActions();

  void evaluateGuarded(const std::string& expression);

  BridgeHost& host_;
  const std::string guard_;
  AgentSounds sounds_;
  Later later_;
  std::map<std::string, NativeAction, std::less<>> actions_;
  // Started with the first file action. Work still running when the bridge
  // goes sees `alive_` gone and replies to nobody.
  std::unique_ptr<SerialQueue> fileThread_;
  std::shared_ptr<Bridge*> alive_;
  // Native-to-page calls still waiting for the page's answer, by call id.
  // Entries whose answer never comes stay as long as the bridge.
  std::map<std::string, std::function<void(const Json& answer)>> pending_;
  long lastCallNumber_ = 0;
};

// The tint for "setChromeScrim" [r, g, b, a]: nullopt removes it.
std::optional<ScrimColor> scrimColorFromArgs(const Json& args);

// The JavaScript text of a native-to-page call.
std::string bridgeInvokeExpression(const std::string& callId, const std::string& handler, const std::string& argsJson);
