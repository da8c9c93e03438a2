#pragma once

#include <optional>
#include <string>

#include "base/json.h"

// Who may use the bridge: the instance's own top frame, and nobody else.
//
// WebKitGTK does not say which frame posted a message, so the top frame
// proves it: a script injected at document start into the top frame, and
// doing anything only while that document is on the instance's origin, wraps
// the message handler so that every message travels with a key. The key
// lives only in that script's closure. Other frames and other origins get a
// wrapper without it (which names their origin for the log); a frame that
// calls the handler directly sends no envelope at all. A cross-origin frame
// cannot read the top frame's closure, so it cannot forge the key.
class BridgeGate {
 public:
  // instanceOrigin as ondrelOriginOf gives it; key is made at random when
  // not given (tests pass their own).
  explicit BridgeGate(std::string instanceOrigin, std::string key = {});

  const std::string& origin() const { return origin_; }

  // For the top frame only. extraScript (such as the host object) runs only
  // where the key is handed out.
  std::string topFrameScript(const std::string& extraScript) const;

  // For every frame: labels what any other frame posts with its origin.
  std::string otherFrameScript() const;

  // The page's message taken out of its envelope, or nullopt, with one log
  // line naming the sender's origin, when it is not the instance's top frame.
  std::optional<Json> admit(Json&& envelope) const;

 private:
  std::string origin_;
  std::string key_;
};

// What a native-to-page expression starts with, so that it does nothing
// unless the top document is still on the instance's origin when it runs
// (the page may have moved on since the request came in).
std::string originGuardExpression(const std::string& origin);
