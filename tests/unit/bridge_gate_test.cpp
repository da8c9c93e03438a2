#include "bridge/bridge_gate.h"

#include <gtest/gtest.h>

#include <tuple>

#include "log_capture.h"

namespace {

const std::string kOrigin = "http://127.0.0.1:8123";
const std::string kKey = "0123456789abcdef0123456789abcdef";

TEST(BridgeGate, AdmitsOnlyTheTopFramesEnvelope) {
  const BridgeGate gate(kOrigin, kKey);
  const Json body = {{"__reqId", "r1"}, {"name", "exec"}};
  const std::tuple<Json, bool, std::string> cases[] = {  // envelope, admitted, named in the refusal's log line
      {Json::array({kKey, kOrigin, body}), true, ""},
      {Json::array({"", "http://127.0.0.1:9999", body}), false, "http://127.0.0.1:9999"},
      {Json::array({kKey.substr(1) + "0", kOrigin, body}), false, kOrigin},
      {Json::array({kKey.substr(0, 31), kOrigin, body}), false, kOrigin},
      {Json::array({kKey, kOrigin}), false, "bypassed"},
      {Json::array({nullptr, kOrigin, body}), false, kOrigin},
      {body, false, "bypassed"},
      {Json::array({"", std::string(5000, 'o'), body}), false, std::string(150, 'o')},
  };
  for (const auto& [envelope, admit, named] : cases) {
    LogCapture::instance().clear();
    auto admitted = gate.admit(Json(envelope));
    EXPECT_EQ(admitted.has_value(), admit) << envelope;
    EXPECT_EQ(admitted.value_or(nullptr), admit ? body : Json());
    const auto lines = LogCapture::instance().lines();
    ASSERT_EQ(lines.size(), admit ? 0u : 1u) << envelope;
    if (!admit) {
      EXPECT_TRUE(lines[0].find(named) != std::string::npos && lines[0].size() < 400) << lines[0];
    }
  }
}

TEST(BridgeGate, EachGateHasItsOwnKeyAndOnlyTheTopFrameScriptHoldsIt) {
  EXPECT_NE(BridgeGate(kOrigin).topFrameScript(""), BridgeGate(kOrigin).topFrameScript(""));
  const BridgeGate known(kOrigin, kKey);
  EXPECT_NE(known.topFrameScript("").find(kKey), std::string::npos);
  EXPECT_EQ(known.otherFrameScript().find(kKey), std::string::npos);
}

}  // namespace
