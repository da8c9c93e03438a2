#pragma once

// A window stand-in for the bridge and a reader of the reply expressions it
// evaluates, shared by the bridge test files.

#include <gtest/gtest.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "bridge/bridge.h"
#include "home_override.h"
#include "log_capture.h"
#include "main_loop.h"

class FakeHost : public BridgeHost {
 public:
  void evaluateScript(std::string script) override { scripts.push_back(std::move(script)); }
  // Answers the probe's questions as a page without window.__ondrel would.
  void evaluateScriptForResult(const std::string& script,
                               std::function<void(const std::string&, const std::string&)> done) override {
    done(script.find("Object.keys") != std::string::npos ? "NO __ondrel" : "undefined", "");
  }
  void pickDirectory(const std::optional<std::string>&, std::function<void(std::optional<std::string>)>) override {}
  void setChromeScrim(const std::optional<ScrimColor>&) override {}
  void openInBrowser(const std::string&) override {}

  std::vector<std::string> scripts;
};

// The instance origin every test bridge is made for, and the guard that
// keeps what the bridge evaluates from reaching a page on another origin.
inline const std::string kPageOrigin = "http://instance.test:8123";
inline const std::string kGuard = "location.origin === \"" + kPageOrigin + "\" && (";

// A reply expression taken apart by hand, so the tests do not reuse the
// code that builds it; nullopt when it is not one, or not guarded.
struct Reply {
  std::string id;
  bool ok = false;
  Json value;
};

inline std::optional<Reply> parseReply(const std::string& script) {
  const std::string head = kGuard + "window.__ondrel && window.__ondrel.__resolve ? window.__ondrel.__resolve('";
  const std::string tail = ") : console.error('__resolve missing') )";
  const size_t flag = script.find("', ", head.size());
  if (!script.starts_with(head) || !script.ends_with(tail) || flag == std::string::npos ||
      script.size() < flag + 6 + tail.size() || script.compare(flag + 4, 2, ", ") != 0 ||
      (script[flag + 3] != '0' && script[flag + 3] != '1')) {
    return std::nullopt;
  }
  auto value = parseJson(script.substr(flag + 6, script.size() - tail.size() - flag - 6));
  if (!value) return std::nullopt;
  return Reply{script.substr(head.size(), flag - head.size()), script[flag + 3] == '1', *value};
}

// Points HOME at a scratch folder (the defaults file lives below it) and
// gives each test a fresh log.
class BridgeTest : public ::testing::Test {
 protected:
  void SetUp() override { LogCapture::instance().clear(); }

  // Runs one action and returns its single reply, which comes at once or,
  // for work off the main thread, by way of the main loop.
  Reply call(const Json& name, const Json& args) {
    const size_t before = host_.scripts.size();
    bridge_.handleNativeAction("r", name, args);
    pumpUntil([&] { return host_.scripts.size() > before; }, 30);
    auto reply = host_.scripts.size() == before + 1 ? parseReply(host_.scripts.back()) : std::nullopt;
    EXPECT_TRUE(reply && reply->id == "r") << name << args << " made " << host_.scripts.size() - before << " scripts";
    return reply.value_or(Reply{});
  }

  HomeOverride home_;
  FakeHost host_;
  std::vector<std::string> played_;
  std::vector<std::pair<double, std::function<void()>>> later_;  // what the bridge asked to run after a delay
  Bridge bridge_{host_, kPageOrigin, [this](const std::string& path) { played_.push_back(path); },
                 [this](double seconds, std::function<void()> fn) { later_.emplace_back(seconds, std::move(fn)); }};
};
