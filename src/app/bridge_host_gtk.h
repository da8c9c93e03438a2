#pragma once

#include <gtk/gtk.h>
#include <webkit2/webkit2.h>

#include "app/main_window_gtk.h"
#include "bridge/bridge.h"
#include "bridge/script_batch.h"

// The bridge's view of the main window.
class GtkBridgeHost : public BridgeHost {
 public:
  // guard: the origin guard that every script for the page starts with.
  GtkBridgeHost(MainWindow& window, const std::string& guard);

  void evaluateScript(std::string script) override;
  void evaluateScriptForResult(const std::string& script,
                               std::function<void(const std::string&, const std::string&)> done) override;
  void pickDirectory(const std::optional<std::string>& message,
                     std::function<void(std::optional<std::string>)> done) override;
  void setChromeScrim(const std::optional<ScrimColor>& color) override;
  void openInBrowser(const std::string& url) override;

 private:
  MainWindow& window_;
  ScriptBatch batch_;
};
