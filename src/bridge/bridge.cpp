#include "bridge/bridge.h"

#include <ctime>

#include "base/log.h"
#include "base/main_thread.h"
#include "bridge/bridge_gate.h"
#include "bridge/value_text.h"
#include "mcp/serial_queue.h"

std::string bridgeInvokeExpression(const std::string& callId, const std::string& handler, const std::string& argsJson) {
  return "window.__ondrel && window.__ondrel.invoke ? window.__ondrel.invoke('" + callId + "', '" + handler +
         "', ..." + argsJson + ") : window.webkit.messageHandlers.ondrel.postMessage(   { __bridgeId: '" + callId +
         "', ok: false, error: 'bridge-not-ready' })";
}

Bridge::Bridge(BridgeHost& host, const std::string& pageOrigin, AgentSounds::Player soundPlayer, Later later)
    : host_(host),
      guard_(originGuardExpression(pageOrigin)),
      sounds_(std::move(soundPlayer)),
      later_(std::move(later)),
      alive_(std::make_shared<Bridge*>(this)) {
  addBuiltInActions();
}

Bridge::~Bridge() = default;

void Bridge::addAction(const std::string& name, NativeAction action) { actions_[name] = std::move(action); }

void Bridge::didReceiveScriptMessage(Json body) {
  if (!body.is_object()) {
    logLine("[JS->Native] ondrel");
    return;
  }
  if (auto it = body.find("__bridgeId"); it != body.end()) {
    std::string id = valueText(*it);
    auto entry = pending_.find(id);
    if (entry == pending_.end()) {
      logLine("[JS->Native] stale response id=" + id);
      return;
    }
    auto completion = std::move(entry->second);
    pending_.erase(entry);
    completion(body);
    return;
  }
  if (auto it = body.find("__reqId"); it != body.end()) {
    Json name = body.contains("name") ? body["name"] : Json();
    Json args = Json::array();
    // Moved, not copied: it may be 16 MB.
    if (auto a = body.find("args"); a != body.end() && a->is_array()) args = std::move(*a);
    logLine("[JS->Native] native action '" + valueText(name) + "' (req " + valueText(*it) + ") args=" +
            describeJsonBounded(args, kLogLineDisplayLimit));
    handleNativeAction(*it, name, std::move(args));
    return;
  }
  logLine("[JS->Native] " + valueText(body));
}

void Bridge::replyToJS(const Json& reqId, bool ok, const Json& value) {
  host_.evaluateScript(ReplyText(guard_, reqId)(ok, value));
}

void Bridge::replyFromFileThread(const Json& reqId,
                                 std::function<std::vector<std::string>(const ReplyText& reply)> work) {
  if (!fileThread_) fileThread_ = std::make_unique<SerialQueue>(SerialQueue::Priority::Background);
  fileThread_->async([reply = ReplyText(guard_, reqId), work = std::move(work),
                      alive = std::weak_ptr<Bridge*>(alive_)] {
    std::vector<std::string> scripts;
    try {
      scripts = work(reply);
    } catch (const std::exception& e) {  // such as running out of memory: still one reply
      scripts = {reply(false, e.what())};
    }
    // One hop each, so the window answers input between the pieces of a
    // large reply.
    for (auto& script : scripts) {
      runOnMain([script = std::move(script), alive]() mutable {
        if (auto bridge = alive.lock()) (*bridge)->host_.evaluateScript(std::move(script));
      });
    }
  });
}

void Bridge::evaluateGuarded(const std::string& expression) { host_.evaluateScript(guard_ + "(" + expression + ")"); }

void Bridge::invokeHandler(const std::string& handler, const Json& args, const std::string& desc) {
  std::string id = std::to_string(++lastCallNumber_) + "-" + std::to_string(static_cast<long>(std::time(nullptr)));
  std::string argsJson = (args.is_array() && !args.empty()) ? args.dump(-1, ' ', false, Json::error_handler_t::replace)
                                                            : "[]";
  std::string script = bridgeInvokeExpression(id, handler, argsJson);
  logLine("[Native->JS] " + desc + "\n  request id=" + id + " invoke(" + handler + ")");
  // Stored before evaluating, so that an immediate answer finds it.
  pending_[id] = [handler](const Json& answer) {
    bool ok = answer.contains("ok") && valueTruth(answer["ok"]);
    if (ok) {
      logLine("[Native->JS] " + handler + " → " + valueText(answer.contains("value") ? answer["value"] : Json()));
    } else {
      logLine("[Native->JS] " + handler + " ✗ " + valueText(answer.contains("error") ? answer["error"] : Json()));
    }
  };
  evaluateGuarded(script);
}

void Bridge::handleNativeAction(const Json& reqId, const Json& name, Json args) {
  if (name.is_string()) {
    if (auto it = actions_.find(name.get_ref<const std::string&>()); it != actions_.end()) {
      if (!args.is_array()) args = Json::array();
      it->second(reqId, args);
      return;
    }
  }
  replyToJS(reqId, false, "unknown native action '" + valueText(name) + "'");
}

void Bridge::openExternally(const std::string& url) {
  logLine("[External] opened in browser: " + url);
  host_.openInBrowser(url);
}
