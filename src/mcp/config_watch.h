#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>

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
// which a watch on the file itself would lose) with inotify on a thread of
// its own, throttled as above; `check` runs on that thread. Destroying the
// watch ends the thread.
class ConfigWatch {
 public:
  // nullptr when the directory cannot be created or watched.
  static std::unique_ptr<ConfigWatch> start(const std::string& directory, std::function<void()> check,
                                            double interval = 0.5);
  ~ConfigWatch();
  ConfigWatch(const ConfigWatch&) = delete;
  ConfigWatch& operator=(const ConfigWatch&) = delete;

 private:
  struct State;
  explicit ConfigWatch(std::shared_ptr<State> state) : state_(std::move(state)) {}
  std::shared_ptr<State> state_;
};
