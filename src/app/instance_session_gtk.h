#pragma once

#include <webkit2/webkit2.h>

#include <string>

#include "app/bridge_host_gtk.h"
#include "app/main_window_gtk.h"
#include "bridge/bridge.h"
#include "bridge/bridge_gate.h"

// Everything tied to the instance the window shows: the gate (its origin and
// a key of its own), the host that speaks to the page under that origin's
// guard, and the bridge with its actions. Loading another instance makes a
// new session; the old one stays for work still under way, whose replies
// its guard keeps from the new page.
class InstanceSession {
 public:
  InstanceSession(MainWindow& window, std::string serverUrl);
  InstanceSession(const InstanceSession&) = delete;
  InstanceSession& operator=(const InstanceSession&) = delete;

  // Replaces the view's scripts with this session's, for the next document.
  void installScripts(WebKitUserContentManager* content) const;

  const std::string& serverUrl() const { return serverUrl_; }
  const std::string& referenceHost() const { return referenceHost_; }
  const BridgeGate& gate() const { return gate_; }
  Bridge& bridge() { return bridge_; }

 private:
  std::string serverUrl_;
  std::string referenceHost_;
  BridgeGate gate_;
  GtkBridgeHost host_;
  Bridge bridge_;
};
