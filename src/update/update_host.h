#pragma once

#include <functional>
#include <string>

// What the updater needs from the rest of the program: its dialogs, the
// progress window, the event loop and the end of the process. The GTK layer
// gives the real one to the Updater; tests give a fake. Every call is made
// on the main thread.
//
// The dialogs return at once and report their answer later, from the main
// loop: while one is open, replies to the page, completions and log lines
// queued for the main thread must keep flowing.
class UpdateHost {
 public:
  enum class Choice { UpdateNow, NextRestart, Later };

  virtual ~UpdateHost() = default;

  // The "Ondrel Update Available" alert; answered runs once with the choice
  // (Later when the alert is closed any other way).
  virtual void askToUpdate(const std::string& remote, const std::string& current,
                           std::function<void(Choice)> answered) = 0;

  // Shows the progress window (built once, reused after), with the bar
  // indeterminate and the given label.
  virtual void showProgress(const std::string& label) = 0;
  // A fraction of 0 or less turns the bar indeterminate. Ignored while no
  // progress window exists.
  virtual void setProgress(double fraction) = 0;
  virtual void hideProgress() = 0;

  // The modal "Update Failed" alert with a single default button;
  // dismissed runs once it has been closed.
  virtual void showFailure(const std::string& informativeText, std::function<void()> dismissed) = 0;

  // The modal About alert.
  virtual void showAbout(const std::string& informativeText) = 0;

  virtual void runEventLoop() = 0;
  virtual void stopEventLoop() = 0;

  // Process-level steps; the defaults do the real thing.

  // The path of the running executable.
  virtual std::string runningExecutable();
  // Starts /bin/sh with the script, detached from this process; false when
  // it could not be started.
  virtual bool launchSwapScript(const std::string& scriptPath);
  // Ends the process at once: no quit hooks, no orderly shutdown.
  virtual void exitProcess(int status);
};
