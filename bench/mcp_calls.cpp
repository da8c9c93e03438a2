// tools/call round trips against one stdio MCP server.
//
//   mcp_calls [--label NAME] [--calls N] [--inflight K] [--parallel-calls M] [--raw] -- COMMAND [ARGS...]
//
// Client mode (default) drives McpTask, the client the app uses: N sequential
// calls (each started when the previous completed; latency from the call to
// its completion on the main thread), then M calls with K in flight (calls per
// second). Raw mode is the floor to compare against: one thread writes each
// request to the server's pipe and blocks reading the answer, no JSON work.
// Prints one JSON object per mode.

#include <glib.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "base/json.h"
#include "base/log.h"
#include "mcp/child_process.h"
#include "mcp/mcp_task.h"

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;

struct Options {
  std::string label = "server";
  int calls = 1000;
  int warmup = 200;
  int inflight = 100;
  int parallelCalls = 5000;
  bool raw = false;
  std::vector<std::string> command;
};

double micros(Clock::duration d) { return std::chrono::duration<double, std::micro>(d).count(); }

Json summary(std::vector<double> us) {
  std::sort(us.begin(), us.end());
  auto at = [&](double q) { return us[std::min(us.size() - 1, static_cast<size_t>(q * (us.size() - 1) + 0.5))]; };
  double sum = 0;
  for (double v : us) sum += v;
  return Json{{"median_us", at(0.5)}, {"p90_us", at(0.9)}, {"p99_us", at(0.99)}, {"max_us", us.back()},
              {"mean_us", sum / us.size()}};
}

const std::string kMessage = "benchmark message";

// Runs the main loop until `done` holds.
void runUntil(const std::function<bool()>& done) {
  while (!done()) g_main_context_iteration(nullptr, TRUE);
}

int runClient(const Options& o) {
  std::vector<std::string> args(o.command.begin() + 1, o.command.end());
  auto task = McpTask::create(std::make_shared<McpServerContext>(), o.label, o.command[0], args);
  task->start();
  if (!task->isRunning()) {
    std::fprintf(stderr, "server did not start\n");
    return 1;
  }
  Json arguments = {{"message", kMessage}};
  bool failed = false;
  std::string failure;
  auto check = [&](bool ok, const Json& result, const Json& error) {
    if (!ok || !result.contains("text") || result["text"] != "Echo: " + kMessage) {
      failed = true;
      failure = ok ? describeJson(result) : describeJson(error);
    }
  };

  // Sequential: one call at a time, completion to next call on the main thread.
  std::vector<double> latencies;
  latencies.reserve(o.calls);
  int started = 0, finished = 0;
  Clock::time_point sentAt;
  std::function<void()> next = [&] {
    if (started == o.warmup + o.calls || failed) return;
    ++started;
    sentAt = Clock::now();
    task->callTool("echo", arguments, [&](bool ok, const Json& result, const Json& error) {
      auto took = Clock::now() - sentAt;
      check(ok, result, error);
      if (finished++ >= o.warmup) latencies.push_back(micros(took));
      next();
    });
  };
  next();
  runUntil([&] { return finished == o.warmup + o.calls || failed; });
  if (failed) {
    std::fprintf(stderr, "call failed: %s\n", failure.c_str());
    return 1;
  }

  // Parallel: keep `inflight` calls outstanding until parallelCalls are done.
  int pStarted = 0, pFinished = 0;
  std::function<void()> launch = [&] {
    if (pStarted == o.parallelCalls || failed) return;
    ++pStarted;
    task->callTool("echo", arguments, [&](bool ok, const Json& result, const Json& error) {
      check(ok, result, error);
      ++pFinished;
      launch();
    });
  };
  auto begin = Clock::now();
  for (int i = 0; i < o.inflight; ++i) launch();
  runUntil([&] { return pFinished == o.parallelCalls || failed; });
  double seconds = std::chrono::duration<double>(Clock::now() - begin).count();
  if (failed) {
    std::fprintf(stderr, "call failed: %s\n", failure.c_str());
    return 1;
  }

  Json out = {{"client", "ondrel"}, {"server", o.label}, {"calls", o.calls}};
  out.update(summary(latencies));
  out["inflight"] = o.inflight;
  out["calls_per_s"] = o.parallelCalls / seconds;
  std::printf("%s\n", out.dump().c_str());
  std::fflush(stdout);

  auto child = task->child();
  task->stop();
  if (child) child->waitUntilReaped(5);
  return 0;
}

// The floor: blocking write and read on one thread, nothing else.
int runRaw(const Options& o) {
  SpawnRequest request;
  request.executable = o.command[0];
  request.args.assign(o.command.begin() + 1, o.command.end());
  for (char** e = environ; e && *e; ++e) request.environment.emplace_back(*e);
  std::string error;
  auto child = ChildProcess::spawn(request, nullptr, &error);
  if (!child) {
    std::fprintf(stderr, "%s\n", error.c_str());
    return 1;
  }
  int out = child->takeStdout();
  auto input = child->stdinWriter();
  std::string pending;
  auto readLine = [&]() -> bool {
    for (;;) {
      size_t nl = pending.find('\n');
      if (nl != std::string::npos) {
        pending.erase(0, nl + 1);
        return true;
      }
      char buf[4096];
      ssize_t n = read(out, buf, sizeof buf);
      if (n <= 0) return false;
      pending.append(buf, static_cast<size_t>(n));
    }
  };
  auto roundTrip = [&](const std::string& line) { return input->writeAll(line, nullptr) && readLine(); };

  roundTrip(R"({"jsonrpc":"2.0","id":1,"method":"initialize","params":{"protocolVersion":"2024-11-05","capabilities":{},"clientInfo":{"name":"raw","version":"1"}}})"
            "\n");
  input->writeAll("{\"jsonrpc\":\"2.0\",\"method\":\"notifications/initialized\",\"params\":{}}\n", nullptr);
  std::vector<double> latencies;
  for (int i = 0; i < o.warmup + o.calls; ++i) {
    std::string line = R"({"jsonrpc":"2.0","method":"tools/call","id":)" + std::to_string(i + 2) +
                       R"(,"params":{"name":"echo","arguments":{"message":")" + kMessage + "\"}}}\n";
    auto start = Clock::now();
    if (!roundTrip(line)) {
      std::fprintf(stderr, "server ended\n");
      return 1;
    }
    if (i >= o.warmup) latencies.push_back(micros(Clock::now() - start));
  }
  Json result = {{"client", "raw-pipe"}, {"server", o.label}, {"calls", o.calls}};
  result.update(summary(latencies));
  std::printf("%s\n", result.dump().c_str());
  std::fflush(stdout);
  close(out);
  child->terminate();
  child->waitUntilReaped(5);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  Options o;
  int i = 1;
  for (; i < argc; ++i) {
    std::string a = argv[i];
    auto value = [&]() -> std::string { return i + 1 < argc ? argv[++i] : ""; };
    if (a == "--") {
      ++i;
      break;
    }
    if (a == "--label") o.label = value();
    else if (a == "--calls") o.calls = std::stoi(value());
    else if (a == "--warmup") o.warmup = std::stoi(value());
    else if (a == "--inflight") o.inflight = std::stoi(value());
    else if (a == "--parallel-calls") o.parallelCalls = std::stoi(value());
    else if (a == "--raw") o.raw = true;
    else {
      std::fprintf(stderr, "unknown option %s\n", a.c_str());
      return 2;
    }
  }
  for (; i < argc; ++i) o.command.push_back(argv[i]);
  if (o.command.empty() || o.calls <= 0) {
    std::fprintf(stderr, "usage: mcp_calls [--label NAME] [--calls N] [--inflight K] [--parallel-calls M] [--raw] -- COMMAND [ARGS...]\n");
    return 2;
  }
  // The app ignores SIGPIPE; so does its benchmark.
  signal(SIGPIPE, SIG_IGN);
  // Log lines would only disturb the timing.
  g_log_set_writer_func([](GLogLevelFlags, const GLogField*, gsize, gpointer) { return G_LOG_WRITER_HANDLED; },
                        nullptr, nullptr);
  return o.raw ? runRaw(o) : runClient(o);
}
