#include <memory>

#include "bridge/bridge.h"
#include "bridge/exec_command.h"

// Kept apart from exec_command.cpp so that the execution core links without
// the bridge.

void registerExecAction(Bridge& bridge) {
  // Owned by the action table: when the bridge (and so its table) goes away,
  // the token dies and late answers find nobody to reply to.
  auto alive = std::make_shared<Bridge*>(&bridge);
  bridge.addAction("exec", [alive](const Json& reqId, const Json& args) {
    std::weak_ptr<Bridge*> weak = alive;
    execCommand(args, [weak, reqId](bool ok, const Json& value) {
      if (auto target = weak.lock()) (*target)->replyToJS(reqId, ok, value);
    });
  });
}
