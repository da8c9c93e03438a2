#include "bridge/reply_text.h"

#include <atomic>

#include "bridge/value_text.h"

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

// Where the page keeps pieces until the last one: a property nobody else
// uses, not enumerable, so the page's own code does not trip over it.
constexpr std::string_view kPieceStore =
    "(window.__ondrelPieces || Object.defineProperty(window, '__ondrelPieces', { value: {} }).__ondrelPieces)";

}  // namespace

std::string bridgeReplyHead(const std::string& reqIdText, bool ok) {
  return "window.__ondrel && window.__ondrel.__resolve ? window.__ondrel.__resolve('" + quotedForJs(reqIdText) +
         "', " + (ok ? "1" : "0") + ", ";
}

std::string bridgeIdText(const Json& reqId) { return valueText(reqId); }

std::string bridgeReplyExpression(const std::string& reqIdText, bool ok, const std::string& valueJson) {
  return bridgeReplyHead(reqIdText, ok) + valueJson + std::string(kBridgeReplyTail);
}

ReplyText::ReplyText(std::string guard, const Json& reqId) : guard_(std::move(guard)), idText_(bridgeIdText(reqId)) {}

std::string ReplyText::operator()(bool ok, const Json& value) const {
  std::string json;
  try {
    json = value.dump();
  } catch (const Json::exception&) {
    json = "null";
  }
  return (*this)(ok, json.size(), [&json](std::string& script) { script += json; });
}

std::string ReplyText::operator()(bool ok, size_t sizeHint, const AppendJson& appendJson) const {
  const std::string head = bridgeReplyHead(idText_, ok);
  std::string script;
  script.reserve(guard_.size() + head.size() + sizeHint + kBridgeReplyTail.size() + 2);
  script += guard_;
  script += '(';
  script += head;
  appendJson(script);
  script += kBridgeReplyTail;
  script += ')';
  return script;
}

std::vector<std::string> ReplyText::inPieces(bool ok, size_t count, size_t pieceSizeHint,
                                             const std::function<void(std::string&, size_t)>& appendPiece) const {
  if (count <= 1) return {(*this)(ok, pieceSizeHint, [&](std::string& out) { appendPiece(out, 0); })};
  static std::atomic<unsigned long> serial{0};
  const std::string key = "'r" + std::to_string(++serial) + "'";
  std::vector<std::string> scripts;
  scripts.reserve(count + 1);
  for (size_t i = 0; i < count; ++i) {
    std::string script;
    script.reserve(guard_.size() + kPieceStore.size() + pieceSizeHint + 64);
    script += guard_;
    script += "((function (s) { (s[" + key + "] = s[" + key + "] || []).push(";
    appendPiece(script, i);
    script += "); })(";
    script += kPieceStore;
    script += "))";
    scripts.push_back(std::move(script));
  }
  const std::string whole = "p && p.length === " + std::to_string(count);
  scripts.push_back(guard_ + "((function (s) { var p = s[" + key + "]; delete s[" + key + "]; return " + whole +
                    " ? (" + bridgeReplyHead(idText_, ok) + "p.join('')" + std::string(kBridgeReplyTail) + ") : (" +
                    bridgeReplyHead(idText_, false) + "\"the page changed while the reply was on its way\"" +
                    std::string(kBridgeReplyTail) + "); })(" + std::string(kPieceStore) + "))");
  return scripts;
}
