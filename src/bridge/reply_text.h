#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "base/json.h"

// The reply to a native-action request, as the page receives it: the
// expression "window.__ondrel && window.__ondrel.__resolve ?
// window.__ondrel.__resolve('id', 1|0, value) : console.error('__resolve
// missing') ", behind the origin guard.
std::string bridgeReplyExpression(const std::string& reqIdText, bool ok, const std::string& valueJson);
// The reply expression is head + value JSON + tail, for writers that put a
// large value in place.
std::string bridgeReplyHead(const std::string& reqIdText, bool ok);
inline constexpr std::string_view kBridgeReplyTail = ") : console.error('__resolve missing') ";

// The text form of a request id as it goes between the quotes of a reply.
std::string bridgeIdText(const Json& reqId);

// Makes the script of one reply; a copy can do so on any thread.
class ReplyText {
 public:
  using AppendJson = std::function<void(std::string& out)>;

  ReplyText(std::string guard, const Json& reqId);
  std::string operator()(bool ok, const Json& value) const;
  // For large values: appendJson writes the value's JSON text straight into
  // the script, so a big payload is not copied through intermediate
  // strings. sizeHint is the expected JSON length.
  std::string operator()(bool ok, size_t sizeHint, const AppendJson& appendJson) const;

  // A string value made of `count` pieces, where appendPiece writes the
  // JSON string literal of piece i. Past one piece each goes to the page in
  // a script of its own, and a last one hands the joined string to
  // __resolve: WebKit copies a script's text several times on the main
  // thread, and 22 MB in one script keeps the window from answering for
  // most of a second. Should the page change between the pieces, the last
  // script answers with a failure rather than part of the value.
  std::vector<std::string> inPieces(bool ok, size_t count, size_t pieceSizeHint,
                                    const std::function<void(std::string& out, size_t index)>& appendPiece) const;

 private:
  std::string guard_;
  std::string idText_;
};
