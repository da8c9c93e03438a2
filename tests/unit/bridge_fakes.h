#pragma once

// A window stand-in for the bridge and a reader of the reply expressions it
// evaluates, shared by the bridge test files.

#include <glib.h>
#include <gtest/gtest.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "bridge/bridge.h"
#include "home_override.h"
#include "log_capture.h"
#include "main_loop.h"
#include "test_files.h"

class FakeHost : public BridgeHost {
 public:
  void evaluateScript(std::string script) override {
    scripts.push_back(std::move(script));
    if (onScript) onScript(scripts.back());
  }
  void evaluateScriptForResult(const std::string& script,
                               std::function<void(const std::string&, const std::string&)> done) override {
    probes.push_back(script);
    done(probeResult(script), "");
  }
  void pickDirectory(const std::optional<std::string>& message,
                     std::function<void(std::optional<std::string>)> done) override {
    pickMessages.push_back(message);
    pickDone = std::move(done);
  }
  void setChromeScrim(const std::optional<ScrimColor>& color) override { scrims.push_back(color); }
  void openInBrowser(const std::string& url) override { opened.push_back(url); }

  std::vector<std::string> scripts, probes, opened;
  std::vector<std::optional<std::string>> pickMessages;
  std::vector<std::optional<ScrimColor>> scrims;
  std::function<void(std::optional<std::string>)> pickDone;
  std::function<void(const std::string&)> onScript;
  // Answers the probe's questions as a page without window.__ondrel would.
  std::function<std::string(const std::string&)> probeResult = [](const std::string& script) {
    return script.find("Object.keys") != std::string::npos ? "NO __ondrel" : "undefined";
  };
};

// The instance origin every test bridge is made for.
inline const std::string kPageOrigin = "http://instance.test:8123";

// A native-to-page expression without its origin guard, or nullopt when the
// guard is missing: nothing may reach a page that moved to another origin.
inline std::optional<std::string> unguarded(const std::string& script) {
  const std::string head = "location.origin === \"" + kPageOrigin + "\" && (";
  if (script.rfind(head, 0) != 0 || script.empty() || script.back() != ')') return std::nullopt;
  return script.substr(head.size(), script.size() - head.size() - 1);
}

// A reply expression taken apart by hand, so the tests do not reuse the
// code that builds it.
struct Reply {
  std::string id;
  bool ok = false;
  Json value;
};

inline std::optional<Reply> parseReply(const std::string& guarded) {
  const auto inside = unguarded(guarded);
  if (!inside) return std::nullopt;
  const std::string& script = *inside;
  const std::string head = "window.__ondrel && window.__ondrel.__resolve ? window.__ondrel.__resolve('";
  const std::string tail = ") : console.error('__resolve missing') ";
  if (script.size() < head.size() + tail.size() || script.rfind(head, 0) != 0 ||
      script.compare(script.size() - tail.size(), tail.size(), tail) != 0) {
    return std::nullopt;
  }
  const std::string inner = script.substr(head.size(), script.size() - head.size() - tail.size());
  const size_t flag = inner.find("', ");
  if (flag == std::string::npos || inner.size() < flag + 6 || inner.compare(flag + 4, 2, ", ") != 0 ||
      (inner[flag + 3] != '0' && inner[flag + 3] != '1')) {
    return std::nullopt;
  }
  auto value = parseJson(inner.substr(flag + 6));
  if (!value) return std::nullopt;
  return Reply{inner.substr(0, flag), inner[flag + 3] == '1', *value};
}

// A long reply comes as pieces and a last script that joins them; this reads
// them the way the page does, or nullopt if the last does not count exactly
// the pieces given, all of one reply.
inline const std::string kPieceHead = "(function (s) { (s['";

inline bool isPiece(const std::string& script) { return unguarded(script).value_or("").rfind(kPieceHead, 0) == 0; }

inline std::optional<Reply> parseReplyInPieces(const std::vector<std::string>& scripts) {
  if (scripts.size() < 3) return std::nullopt;
  std::string key, joined;
  for (size_t i = 0; i + 1 < scripts.size(); ++i) {
    const auto inside = unguarded(scripts[i]);
    if (!inside || !isPiece(scripts[i])) return std::nullopt;
    const size_t keyEnd = inside->find('\'', kPieceHead.size());
    const std::string pieceKey = inside->substr(kPieceHead.size(), keyEnd - kPieceHead.size());
    if (i > 0 && pieceKey != key) return std::nullopt;
    key = pieceKey;
    const size_t open = inside->find(".push(") + 6, close = inside->rfind("); })(");
    auto piece = parseJson(std::string_view(*inside).substr(open, close - open));
    if (!piece || !piece->is_string()) return std::nullopt;
    joined += piece->get_ref<const std::string&>();
  }
  const auto last = unguarded(scripts.back());
  const std::string expected = "(function (s) { var p = s['" + key + "']; delete s['" + key +
                               "']; return p && p.length === " + std::to_string(scripts.size() - 1) + " ? (";
  if (!last || last->rfind(expected, 0) != 0) return std::nullopt;
  const std::string resolve = "window.__ondrel.__resolve('";
  const size_t id = last->find(resolve) + resolve.size(), flag = last->find("', ", id);
  if (last->compare(flag + 6, 10, "p.join('')") != 0) return std::nullopt;
  return Reply{last->substr(id, flag - id), (*last)[flag + 3] == '1', Json(joined)};
}

// Points HOME at a scratch folder (the defaults file lives below it) and
// gives each test a fresh log.
class BridgeTest : public ::testing::Test {
 protected:
  void SetUp() override { LogCapture::instance().clear(); }
  void TearDown() override {
    std::error_code ignored;
    for (const auto& path : played_) std::filesystem::remove(path, ignored);
  }

  // Runs one action and returns its single reply, which comes at once or,
  // for work off the main thread, by way of the main loop; in one script
  // or, when long, in pieces.
  Reply call(const Json& name, const Json& args) {
    const size_t before = host_.scripts.size();
    bridge_.handleNativeAction("r", name, args);
    pumpUntil([&] { return host_.scripts.size() > before && !isPiece(host_.scripts.back()); }, 30);
    const std::vector<std::string> made(host_.scripts.begin() + before, host_.scripts.end());
    auto reply = made.size() == 1 ? parseReply(made[0]) : parseReplyInPieces(made);
    EXPECT_TRUE(reply && reply->id == "r") << name << args << " made " << made.size() << " scripts";
    return reply.value_or(Reply{});
  }

  HomeOverride home_;
  FakeHost host_;
  std::vector<std::string> played_;
  Bridge bridge_{host_, kPageOrigin, [this](const std::string& path) { played_.push_back(path); }};
};
