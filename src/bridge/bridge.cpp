#include "bridge/bridge.h"

#include <ctime>

#include "base/log.h"
#include "bridge/bridge_gate.h"
#include "bridge/value_text.h"

std::map<std::string, std::function<void(const Json& answer)>> gPending;

namespace {

// Ids travel between single quotes. Ids of our own making never need
// escaping, but a page's request id could hold anything; escaping keeps the
// id's value unchanged and the expression intact.
std::string quotedForJs(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  for (char c : text) {
    switch (c) {
      case '\\': out += "\\\\"; break;
      case '\'': out += "\\'"; break;
      case '\n': out += "\\n"; break;
      case '\r': out += "\\r"; break;
      default: out += c;
    }
  }
  return out;
}

constexpr std::string_view kReplyTail = ") : console.error('__resolve missing') ";

std::string replyHead(const std::string& reqIdText, bool ok) {
  return "window.__ondrel && window.__ondrel.__resolve ? window.__ondrel.__resolve('" + quotedForJs(reqIdText) +
         "', " + (ok ? "1" : "0") + ", ";
}

}  // namespace

std::string bridgeIdText(const Json& reqId) { return valueText(reqId); }

std::string bridgeReplyExpression(const std::string& reqIdText, bool ok, const std::string& valueJson) {
  return replyHead(reqIdText, ok) + valueJson + std::string(kReplyTail);
}

std::string bridgeInvokeExpression(const std::string& callId, const std::string& handler, const std::string& argsJson) {
  return "window.__ondrel && window.__ondrel.invoke ? window.__ondrel.invoke('" + callId + "', '" + handler +
         "', ..." + argsJson + ") : window.webkit.messageHandlers.ondrel.postMessage(   { __bridgeId: '" + callId +
         "', ok: false, error: 'bridge-not-ready' })";
}

Bridge::Bridge(BridgeHost& host, const std::string& pageOrigin, AgentSounds::Player soundPlayer)
    : host_(host), guard_(originGuardExpression(pageOrigin)), sounds_(std::move(soundPlayer)) {
  addBuiltInActions();
}

void Bridge::addAction(const std::string& name, NativeAction action) { actions_[name] = std::move(action); }

void Bridge::didReceiveScriptMessage(const Json& body) {
  if (!body.is_object()) {
    logLine("[JS->Native] ondrel");
    return;
  }
  if (auto it = body.find("__bridgeId"); it != body.end()) {
    std::string id = valueText(*it);
    auto entry = gPending.find(id);
    if (entry == gPending.end()) {
      logLine("[JS->Native] stale response id=" + id);
      return;
    }
    auto completion = std::move(entry->second);
    gPending.erase(entry);
    completion(body);
    return;
  }
  if (auto it = body.find("__reqId"); it != body.end()) {
    Json name = body.contains("name") ? body["name"] : Json();
    static const Json kNoArgs = Json::array();
    auto a = body.find("args");
    const Json& args = (a != body.end() && a->is_array()) ? *a : kNoArgs;  // not copied: it may be 16 MB
    logLine("[JS->Native] native action '" + valueText(name) + "' (req " + valueText(*it) + ") args=" +
            describeJsonBounded(args, kLogLineDisplayLimit));
    handleNativeAction(*it, name, args);
    return;
  }
  logLine("[JS->Native] " + valueText(body));
}

void Bridge::replyToJS(const Json& reqId, bool ok, const Json& value) {
  std::string json;
  try {
    json = value.dump();
  } catch (const Json::exception&) {
    json = "null";
  }
  replyToJSWithJsonText(reqId, ok, json.size(), [&json](std::string& script) { script += json; });
}

void Bridge::replyToJSWithJsonText(const Json& reqId, bool ok, size_t sizeHint,
                                   const std::function<void(std::string&)>& appendJson) {
  const std::string head = replyHead(bridgeIdText(reqId), ok);
  std::string script;
  script.reserve(guard_.size() + head.size() + sizeHint + kReplyTail.size() + 2);
  script += guard_;
  script += '(';
  script += head;
  appendJson(script);
  script += kReplyTail;
  script += ')';
  host_.evaluateScript(script);
}

void Bridge::evaluateGuarded(const std::string& expression) { host_.evaluateScript(guard_ + "(" + expression + ")"); }

void Bridge::invokeHandler(const std::string& handler, const Json& args, const std::string& desc) {
  static long seq = 0;
  ++seq;
  std::string id = std::to_string(seq) + "-" + std::to_string(static_cast<long>(std::time(nullptr)));
  std::string argsJson = (args.is_array() && !args.empty()) ? args.dump(-1, ' ', false, Json::error_handler_t::replace)
                                                            : "[]";
  std::string script = bridgeInvokeExpression(id, handler, argsJson);
  logLine("[Native->JS] " + desc + "\n  request id=" + id + " invoke(" + handler + ")");
  // Stored before evaluating, so that an immediate answer finds it.
  gPending[id] = [handler](const Json& answer) {
    bool ok = answer.contains("ok") && valueTruth(answer["ok"]);
    if (ok) {
      logLine("[Native->JS] " + handler + " → " + valueText(answer.contains("value") ? answer["value"] : Json()));
    } else {
      logLine("[Native->JS] " + handler + " ✗ " + valueText(answer.contains("error") ? answer["error"] : Json()));
    }
  };
  evaluateGuarded(script);
}

void Bridge::handleNativeAction(const Json& reqId, const Json& name, const Json& args) {
  if (name.is_string()) {
    if (auto it = actions_.find(name.get<std::string>()); it != actions_.end()) {
      static const Json kNoArgs = Json::array();
      it->second(reqId, args.is_array() ? args : kNoArgs);
      return;
    }
  }
  replyToJS(reqId, false, "unknown native action '" + valueText(name) + "'");
}

void Bridge::openExternally(const std::string& url) {
  logLine("[External] opened in browser: " + url);
  host_.openInBrowser(url);
}
