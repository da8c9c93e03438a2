#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

// The first change of a burst is accepted and asks for one check `interval`
// later; changes within `interval` of the last accepted one are dropped. A
// save (temporary file, writes, rename) is one burst.
class ChangeThrottle {
 public:
  explicit ChangeThrottle(double interval) : interval_(interval) {}
  // `now` in seconds on any steady scale; true when this change is accepted.
  bool accept(double now) {
    if (accepted_ && now - last_ < interval_) return false;
    accepted_ = true;
    last_ = now;
    return true;
  }
  double interval() const { return interval_; }

 private:
  double interval_;
  double last_ = 0;
  bool accepted_ = false;
};

// Watches a directory (not a file: editors and atomic saves replace the file,
// which a watch on the file itself would lose) through GIO, throttled as
// above; events and `check` run on the main context of the thread that
// started the watch. Destroying the watch ends it, a check still due
// included.
class ConfigWatch {
 public:
  // Creates the directory when it is missing; nullptr when it cannot be
  // created or watched.
  static std::unique_ptr<ConfigWatch> start(const std::string& directory, std::function<void()> check,
                                            double interval = 0.5);
  ~ConfigWatch();
  ConfigWatch(const ConfigWatch&) = delete;
  ConfigWatch& operator=(const ConfigWatch&) = delete;

 private:
  ConfigWatch(std::function<void()> check, double interval) : check_(std::move(check)), throttle_(interval) {}
  void changed();

  std::function<void()> check_;
  ChangeThrottle throttle_;
  struct _GFileMonitor* monitor_ = nullptr;
  struct _GMainContext* context_ = nullptr;  // where the monitor reports
  std::vector<struct _GSource*> dueChecks_;  // one timeout per accepted change
};
