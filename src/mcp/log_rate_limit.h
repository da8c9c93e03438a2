#pragma once

#include <algorithm>
#include <cstddef>
#include <optional>

// How many lines one chatty source may put in the log: a token bucket that
// holds `burst` lines and refills at `perSecond`. Lines over the limit are
// only counted, and the count is reported once, `reportAfter` seconds after
// the first of them, so a flood costs a line now and then instead of a line
// (and a hop to the main thread) each. Times are seconds on any steady
// scale, passed in by the caller. Not thread-safe: one reader owns it.
class LogRateLimit {
 public:
  LogRateLimit(double perSecond, double burst, double reportAfter)
      : perSecond_(perSecond), burst_(burst), reportAfter_(reportAfter), tokens_(burst) {}

  // True when a line may be logged at `now`; false counts it as held back.
  bool admit(double now) {
    if (started_) tokens_ = std::min(burst_, tokens_ + std::max(0.0, now - last_) * perSecond_);
    started_ = true;
    last_ = now;
    if (tokens_ >= 1) {
      tokens_ -= 1;
      return true;
    }
    if (held_++ == 0) dueAt_ = now + reportAfter_;
    return false;
  }

  // The number of lines held back once their report is due at `now` (0
  // before that, or when none were); the count starts again from zero.
  size_t takeDue(double now) {
    if (held_ == 0 || now < dueAt_) return 0;
    return takeAll();
  }
  // Whatever is held back, due or not (the source has ended).
  size_t takeAll() {
    size_t n = held_;
    held_ = 0;
    return n;
  }
  // When the held-back lines' report falls due; nullopt when none are held.
  std::optional<double> due() const { return held_ ? std::optional<double>(dueAt_) : std::nullopt; }

 private:
  double perSecond_;
  double burst_;
  double reportAfter_;
  double tokens_;
  double last_ = 0;
  double dueAt_ = 0;
  size_t held_ = 0;
  bool started_ = false;
};
