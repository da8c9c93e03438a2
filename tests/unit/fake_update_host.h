#pragma once

// Records what the updater asks of the UI and of the process, and answers
// the update alert with a preset choice. Like a user, it answers (and closes
// "Update Failed") later, from the main loop.

#include <functional>
#include <string>
#include <vector>

#include "base/main_thread.h"
#include "main_loop.h"
#include "update/update_host.h"

class FakeUpdateHost : public UpdateHost {
 public:
  Choice choice = Choice::Later;
  std::string executable = "/nowhere/build/ondrel";

  std::vector<std::string> asked, progressLabels, failures, abouts, launched;
  std::vector<double> fractions;
  int hides = 0, loopRuns = 0, loopStops = 0;
  std::vector<int> exits;

  void askToUpdate(const std::string& remote, const std::string& current,
                   std::function<void(Choice)> answered) override {
    asked.push_back(remote + " over " + current);
    runOnMain([answered, c = choice] { answered(c); });
  }
  void showProgress(const std::string& label) override { progressLabels.push_back(label); }
  void setProgress(double fraction) override { fractions.push_back(fraction); }
  void hideProgress() override { ++hides; }
  void showFailure(const std::string& text, std::function<void()> dismissed) override {
    failures.push_back(text);
    runOnMain(dismissed);
  }
  void showAbout(const std::string& text) override { abouts.push_back(text); }
  void runEventLoop() override {
    ++loopRuns;
    int stopsBefore = loopStops;
    pumpUntil([&] { return loopStops > stopsBefore || !exits.empty(); }, 20);
  }
  void stopEventLoop() override { ++loopStops; }
  std::string runningExecutable() override { return executable; }
  bool launchSwapScript(const std::string& path) override {
    launched.push_back(path);
    return true;
  }
  void exitProcess(int status) override { exits.push_back(status); }

  bool finished() const { return !failures.empty() || !exits.empty(); }
};
