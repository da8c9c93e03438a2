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

// Newline-delimited JSON-RPC. Its first argument, a JSON object, sets the
// tool list and error answers of initialize and tools/list, and a delay
// before it starts reading. tools/call runs the "script" argument:
//   {"raw": text} written as is, "{ID}" replaced by the request id;
//   {"respond": result}, {"error": object}, {"sleep": seconds},
//   {"stderr": text}, {"exit": code}.
// A call without a script answers with its params as text. Every line it
// receives is appended to $FAKE_LOG.
inline constexpr const char* kFakeServerPy = R"PY(#!/usr/bin/python3
import json, os, sys, time
opts = json.loads(sys.argv[1]) if len(sys.argv) > 1 else {}
log = os.environ.get("FAKE_LOG")
def out(text):
    sys.stdout.write(text)
    sys.stdout.flush()
def reply(id, **kw):
    out(json.dumps(dict(jsonrpc="2.0", id=id, **kw)) + "\n")
time.sleep(opts.get("startDelay", 0))
while True:
    line = sys.stdin.readline()
    if not line:
        break
    if log:
        with open(log, "a") as f:
            f.write(line if line.endswith("\n") else line + "\n")
    try:
        msg = json.loads(line)
    except ValueError:
        continue
    method, id = msg.get("method"), msg.get("id")
    if "id" not in msg or method is None:
        continue
    if method == "initialize":
        if "initError" in opts:
            reply(id, error=opts["initError"])
        elif not opts.get("initSilent"):
            reply(id, result={"protocolVersion": "2024-11-05", "capabilities": {"tools": {}},
                              "serverInfo": {"name": "fake", "version": "1"}})
    elif method == "tools/list":
        if "listError" in opts:
            reply(id, error=opts["listError"])
        else:
            reply(id, result={"tools": opts.get("tools", [{"name": "echo", "inputSchema": {"type": "object"}}])})
    elif method == "tools/call":
        args = msg.get("params", {}).get("arguments", {})
        script = args.get("script") if isinstance(args, dict) else None
        if script is None:
            reply(id, result={"content": [{"type": "text", "text": json.dumps(msg.get("params"))}]})
        for step in script or []:
            if "raw" in step:
                out(step["raw"].replace("{ID}", str(id)))
            elif "respond" in step:
                reply(id, result=step["respond"])
            elif "error" in step:
                reply(id, error=step["error"])
            elif "sleep" in step:
                time.sleep(step["sleep"])
            elif "stderr" in step:
                sys.stderr.write(step["stderr"])
                sys.stderr.flush()
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
  std::shared_ptr<Outcome> request(McpTask& task, const Json& params, double timeout = 10,
                                   const std::string& method = "tools/call") {
    auto outcome = std::make_shared<Outcome>();
    task.sendRequest(method, params, timeout, [outcome](const Json& r) { outcome->responses.push_back(r); });
    return outcome;
  }

  // What the test's servers share, as a registry's would.
  std::shared_ptr<McpServerContext> context_ = std::make_shared<McpServerContext>();
  std::vector<std::shared_ptr<McpTask>> tasks_;

 private:
  HomeOverride home_;
};
