#pragma once

#include <functional>
#include <string>

#include "update/update_host.h"

// The GTK dialogs and progress window as the updater's host. Create after
// gtk_init. quitApp is the application's quit path: a failure that stops
// the event loop outside the start-up update loop stops the application's
// own loop, and that must run the quit hooks.
class GtkUpdateHost final : public UpdateHost {
 public:
  explicit GtkUpdateHost(std::function<void()> quitApp) : quitApp_(std::move(quitApp)) {}
  ~GtkUpdateHost() override;
  GtkUpdateHost(const GtkUpdateHost&) = delete;
  GtkUpdateHost& operator=(const GtkUpdateHost&) = delete;

  void askToUpdate(const std::string& remote, const std::string& current,
                   std::function<void(Choice)> answered) override;
  void showProgress(const std::string& label) override;
  void setProgress(double fraction) override;
  void hideProgress() override;
  void showFailure(const std::string& informativeText, std::function<void()> dismissed) override;
  void showAbout(const std::string& informativeText) override;
  void runEventLoop() override;
  void stopEventLoop() override;

 private:
  void buildProgressWindow();
  void startPulsing();
  void stopPulsing();

  std::function<void()> quitApp_;
  unsigned loopLevel_ = 0;  // the level of the start-up update loop while it runs
  // The progress window: built on first use, reused for every later update.
  struct _GtkWidget* progressWindow_ = nullptr;
  struct _GtkWidget* progressLabel_ = nullptr;
  struct _GtkWidget* progressBar_ = nullptr;
  unsigned pulseTimer_ = 0;
};
