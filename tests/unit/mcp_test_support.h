#pragma once

// Shared by the MCP tests: a scriptable fake MCP server and a temporary HOME.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "base/json.h"
#include "home_override.h"
#include "log_capture.h"
#include "main_loop.h"
#include "mcp/mcp_task.h"
#include "mcp/shell_path.h"
#include "test_files.h"

// Newline-delimited JSON-RPC. Its first argument, a JSON object, may replace
// the answer to "initialize" or "tools/list" (null for none) and set a
// "startDelay" in seconds before it reads. tools/call runs the steps of its
// "script" argument: an answer ({"result": …} or {"error": …}); {"raw":
// text}, written as is with "{ID}" the request id; {"sleep": seconds};
// {"stderr": text}; {"exit": code}. Without a script a call is answered with
// its params as text. Every line it receives goes to $FAKE_LOG.
inline constexpr const char* kFakeServerPy = R"PY(#!/usr/bin/python3
import json, os, sys, time
opts = json.loads(sys.argv[1]) if len(sys.argv) > 1 else {}
canned = {"initialize": {"result": {"protocolVersion": "2024-11-05", "capabilities": {"tools": {}},
                                    "serverInfo": {"name": "fake", "version": "1"}}},
          "tools/list": {"result": {"tools": [{"name": "echo", "inputSchema": {"type": "object"}}]}}, **opts}
def out(text, stream=sys.stdout):
    stream.write(text)
    stream.flush()
time.sleep(opts.get("startDelay", 0))
for line in sys.stdin:
    if os.environ.get("FAKE_LOG"):
        with open(os.environ["FAKE_LOG"], "a") as log:
            log.write(line)
    msg = json.loads(line)
    id, method, args = msg.get("id"), msg.get("method"), (msg.get("params") or {}).get("arguments") or {}
    if id is None or method is None:
        continue
    steps = [canned[method]] if canned.get(method) else []
    if method == "tools/call":
        text = json.dumps(msg["params"])
        steps = args.get("script", [{"result": {"content": [{"type": "text", "text": text}]}}])
    for step in steps:
        if "raw" in step:
            out(step["raw"].replace("{ID}", str(id)))
        elif "result" in step or "error" in step:
            out(json.dumps({"jsonrpc": "2.0", "id": id, **step}) + "\n")
        elif "sleep" in step:
            time.sleep(step["sleep"])
        elif "stderr" in step:
            out(step["stderr"], sys.stderr)
        elif "exit" in step:
            os._exit(step["exit"])
)PY";

inline std::string writeExecutable(const std::filesystem::path& file, const std::string& text) {
  writeText(file, text);
  chmod(file.c_str(), 0755);
  return file.string();
}

// A fresh HOME and log for each test, fake servers, and requests whose answers are collected.
class HomeFixture : public ::testing::Test {
 protected:
  void SetUp() override { LogCapture::instance().clear(); }
  void TearDown() override {
    for (auto& task : tasks_) task->stop();
    if (HasFailure())
      for (const auto& line : LogCapture::instance().lines()) std::fprintf(stderr, "  log: %s\n", line.c_str());
  }

  const std::filesystem::path& home() const { return home_.path(); }
  std::filesystem::path configPath() const { return home_.path() / ".config/ondrel/config.json"; }
  std::string fakeServer() { return writeExecutable(home_.path() / "fake_server.py", kFakeServerPy); }
  static bool logged(const std::string& line) {
    const auto lines = LogCapture::instance().lines();
    return std::find(lines.begin(), lines.end(), line) != lines.end();
  }

  std::shared_ptr<McpTask> startFake(const std::string& name = "fake", const Json& opts = Json::object(),
                                     McpTask::Limits limits = {}) {
    auto task = McpTask::create(context_, name, fakeServer(), {opts.dump()}, {{"FAKE_LOG", serverLog().string()}});
    task->setLimits(limits);
    task->start();
    tasks_.push_back(task);
    return task;
  }
  std::filesystem::path serverLog() const { return home() / "received.jsonl"; }
  std::vector<Json> received() const {
    std::vector<Json> result;
    for (const auto& line : ondrelSplit(readText(serverLog()), '\n'))
      if (auto parsed = parseJson(line)) result.push_back(*parsed);
    return result;
  }
  size_t receivedCount(const std::string& method) const {
    size_t n = 0;
    for (const auto& m : received()) n += m.value("method", "") == method;
    return n;
  }

  // A tools/call whose answer is the script's output.
  static Json scripted(const Json& steps) { return Json{{"name", "t"}, {"arguments", {{"script", steps}}}}; }
  struct Outcome {
    std::vector<Json> responses;
    bool done() const { return !responses.empty(); }
  };
  std::shared_ptr<Outcome> request(McpTask& task, const Json& params, double timeout = 10) {
    auto outcome = std::make_shared<Outcome>();
    task.sendRequest("tools/call", params, timeout, [outcome](const Json& r) { outcome->responses.push_back(r); });
    return outcome;
  }

  // What the test's servers share, as a registry's would.
  std::shared_ptr<McpServerContext> context_ = std::make_shared<McpServerContext>();
  std::vector<std::shared_ptr<McpTask>> tasks_;

 private:
  HomeOverride home_;
};
