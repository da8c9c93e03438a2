// A minimal MCP server over stdio for the call benchmark: answers initialize,
// tools/list and tools/call (echo) with as little work as possible, so that
// what the benchmark measures beyond the bare pipe round trip is the client.
// Parsing is by substring search: it only ever sees the benchmark's requests.

#include <unistd.h>

#include <cstring>
#include <string>
#include <string_view>

namespace {

std::string_view field(std::string_view line, std::string_view key) {
  size_t at = line.find(key);
  if (at == std::string_view::npos) return {};
  at += key.size();
  size_t end = at;
  if (end < line.size() && line[end] == '"') {
    end = line.find('"', at + 1);
    return end == std::string_view::npos ? std::string_view() : line.substr(at + 1, end - at - 1);
  }
  while (end < line.size() && line[end] != ',' && line[end] != '}') ++end;
  return line.substr(at, end - at);
}

void writeAll(const std::string& text) {
  size_t done = 0;
  while (done < text.size()) {
    ssize_t n = write(1, text.data() + done, text.size() - done);
    if (n <= 0) _exit(0);
    done += static_cast<size_t>(n);
  }
}

void answer(std::string_view line) {
  std::string_view method = field(line, "\"method\":");
  std::string_view id = field(line, "\"id\":");
  if (id.empty()) return;  // a notification
  std::string out = "{\"jsonrpc\":\"2.0\",\"id\":";
  out += id;
  if (method == "initialize") {
    out += ",\"result\":{\"protocolVersion\":\"2024-11-05\",\"capabilities\":{\"tools\":{}},"
           "\"serverInfo\":{\"name\":\"bench-echo\",\"version\":\"1\"}}}\n";
  } else if (method == "tools/list") {
    out += ",\"result\":{\"tools\":[{\"name\":\"echo\",\"description\":\"Echoes back the input string\","
           "\"inputSchema\":{\"type\":\"object\",\"properties\":{\"message\":{\"type\":\"string\"}}}}]}}\n";
  } else if (method == "tools/call") {
    out += ",\"result\":{\"content\":[{\"type\":\"text\",\"text\":\"Echo: ";
    out += field(line, "\"message\":");
    out += "\"}]}}\n";
  } else {
    out += ",\"error\":{\"code\":-32601,\"message\":\"Method not found\"}}\n";
  }
  writeAll(out);
}

}  // namespace

int main() {
  std::string buffer;
  char chunk[65536];
  for (;;) {
    ssize_t n = read(0, chunk, sizeof chunk);
    if (n <= 0) return 0;
    buffer.append(chunk, static_cast<size_t>(n));
    size_t start = 0, nl;
    while ((nl = buffer.find('\n', start)) != std::string::npos) {
      answer(std::string_view(buffer).substr(start, nl - start));
      start = nl + 1;
    }
    buffer.erase(0, start);
  }
}
