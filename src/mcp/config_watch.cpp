#include "mcp/config_watch.h"

#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>
#include <deque>
#include <thread>

#include "base/files.h"

namespace {
using Clock = std::chrono::steady_clock;

double seconds(Clock::time_point t) { return std::chrono::duration<double>(t.time_since_epoch()).count(); }
}  // namespace

struct ConfigWatch::State {
  int inotifyFd = -1;
  int stopFd = -1;
  std::function<void()> check;
  ChangeThrottle throttle{0.5};
  std::thread thread;

  ~State() {
    if (inotifyFd >= 0) close(inotifyFd);
    if (stopFd >= 0) close(stopFd);
  }

  void run() {
    pthread_setname_np(pthread_self(), "ondrel.mcp.watch");
    std::deque<Clock::time_point> due;  // checks to run, in order
    alignas(inotify_event) char events[16384];
    for (;;) {
      int timeout = -1;
      if (!due.empty()) {
        auto ms = std::chrono::ceil<std::chrono::milliseconds>(due.front() - Clock::now()).count();
        timeout = ms < 0 ? 0 : static_cast<int>(ms);
      }
      pollfd fds[2] = {{inotifyFd, POLLIN, 0}, {stopFd, POLLIN, 0}};
      int r = poll(fds, 2, timeout);
      if (r < 0 && errno != EINTR) return;
      if (r > 0 && fds[1].revents) return;
      if (r > 0 && fds[0].revents) {
        ssize_t n = read(inotifyFd, events, sizeof events);
        if (n < 0 && errno != EINTR && errno != EAGAIN) return;
        for (ssize_t offset = 0; offset < n;) {
          auto* event = reinterpret_cast<inotify_event*>(events + offset);
          offset += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
          auto now = Clock::now();
          if (throttle.accept(seconds(now)))
            due.push_back(now + std::chrono::duration_cast<Clock::duration>(
                                    std::chrono::duration<double>(throttle.interval())));
        }
      }
      while (!due.empty() && Clock::now() >= due.front()) {
        due.pop_front();
        try {
          check();
        } catch (...) {
        }
      }
    }
  }
};

std::unique_ptr<ConfigWatch> ConfigWatch::start(const std::string& directory, std::function<void()> check,
                                                double interval) {
  makeDirectories(directory);
  auto state = std::make_shared<State>();
  state->check = std::move(check);
  state->throttle = ChangeThrottle(interval);
  state->inotifyFd = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
  state->stopFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (state->inotifyFd < 0 || state->stopFd < 0) return nullptr;
  // Entries created, removed, renamed or written: how saves, atomic ones
  // included, show on a directory.
  uint32_t mask = IN_CREATE | IN_DELETE | IN_MODIFY | IN_CLOSE_WRITE | IN_MOVED_FROM | IN_MOVED_TO |
                  IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;
  if (inotify_add_watch(state->inotifyFd, directory.c_str(), mask) < 0) return nullptr;
  try {
    state->thread = std::thread([raw = state.get()] { raw->run(); });
  } catch (...) {
    return nullptr;
  }
  return std::unique_ptr<ConfigWatch>(new ConfigWatch(std::move(state)));
}

ConfigWatch::~ConfigWatch() {
  uint64_t one = 1;
  ssize_t ignored = write(state_->stopFd, &one, sizeof one);
  (void)ignored;
  if (state_->thread.joinable()) state_->thread.join();
}
