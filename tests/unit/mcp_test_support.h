#pragma once

// Shared by the MCP tests: a scriptable fake MCP server and a temporary HOME.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "base/json.h"
#include "mcp/mcp_task.h"
#include "home_override.h"
#include "log_capture.h"
#include "main_loop.h"
#include "test_files.h"

// The fake server speaks newline-delimited JSON-RPC. It answers initialize
// and tools/list (the tool list, error answers and a delay before it starts
// reading come from its first argument, a JSON object of options), and runs tools/call's "script" argument step by step:
//   {"raw": text}        writes text as is; "{ID}" becomes the request id
//   {"respond": result}  answers the call with this result
//   {"error": object}    answers the call with this error
//   {"sleep": seconds}   waits
//   {"stderr": text}     writes to standard error
//   {"exit": code}       ends the process at once
// A call without a script answers with its arguments as text. Every line it
// receives is appended to $FAKE_LOG.
inline constexpr const char* kFakeServerPy = R"PY(#!/usr/bin/python3
import json, os, sys, time
opts = json.loads(sys.argv[1]) if len(sys.argv) > 1 else {}
log = os.environ.get("FAKE_LOG")
def out(text):
    sys.stdout.write(text)
    sys.stdout.flush()
def reply(id, **kw):
    msg = {"jsonrpc": "2.0", "id": id}
    msg.update(kw)
    out(json.dumps(msg) + "\n")
for text in opts.get("onStart", []):
    out(text)
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
            continue
        for step in script:
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
    else:
        reply(id, error={"code": -32601, "message": "Method not found"})
)PY";

inline std::string writeExecutable(const std::filesystem::path& file, const std::string& text) {
  writeText(file, text);
  chmod(file.c_str(), 0755);
  return file.string();
}

// Points HOME at a fresh directory for the test's lifetime and clears the
// captured log.
class HomeFixture : public ::testing::Test {
 protected:
  void SetUp() override {
    LogCapture::instance().clear();
  }
  void TearDown() override {
    if (HasFailure())
      for (const auto& line : LogCapture::instance().lines()) std::fprintf(stderr, "  log: %s\n", line.c_str());
  }

  const std::filesystem::path& home() const { return home_.path(); }
  // What the test's servers share, as a registry's would.
  std::shared_ptr<McpServerContext> context_ = std::make_shared<McpServerContext>();
  std::filesystem::path configPath() const { return home_.path() / ".config/ondrel/config.json"; }
  std::string fakeServer() { return writeExecutable(home_.path() / "fake_server.py", kFakeServerPy); }

  static bool logged(const std::string& line) {
    for (const auto& l : LogCapture::instance().lines())
      if (l == line) return true;
    return false;
  }
  static size_t loggedCount(const std::string& line) {
    size_t n = 0;
    for (const auto& l : LogCapture::instance().lines())
      if (l == line) ++n;
    return n;
  }

 private:
  HomeOverride home_;
};

// Lines of a file that a fake server appends to, parsed.
inline std::vector<Json> readJsonLines(const std::filesystem::path& file) {
  std::vector<Json> result;
  std::string text = readText(file);
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    if (auto parsed = parseJson(std::string_view(text).substr(start, end - start))) result.push_back(*parsed);
    start = end + 1;
  }
  return result;
}
