// What `ondrel mcp` prints: the state of each server, and a tool's result.

#include <sys/wait.h>

#include <cstring>

#include "app/mcp_cli.h"

namespace {

// Enough of a server's standard error to show why it gave up, not its life story.
constexpr size_t kStderrLines = 10;
constexpr size_t kSummaryBytes = 100;

std::string trimmedCopy(std::string_view text) {
  size_t begin = text.find_first_not_of(" \t\r");
  if (begin == std::string_view::npos) return {};
  size_t end = text.find_last_not_of(" \t\r");
  return std::string(text.substr(begin, end - begin + 1));
}

// A tool's description on one line: its first sentence, at most about a
// terminal line long.
std::string summaryOf(const std::string& description) {
  std::string line = trimmedCopy(description.substr(0, description.find('\n')));
  size_t stop = line.find(". ");
  if (stop != std::string::npos) line.erase(stop + 1);
  if (line.size() <= kSummaryBytes) return line;
  size_t cut = kSummaryBytes;
  while (cut > 0 && (static_cast<unsigned char>(line[cut]) & 0xC0) == 0x80) --cut;  // a character boundary
  return line.substr(0, cut) + "…";
}

std::vector<std::string> lastLines(const std::string& text, size_t count) {
  std::vector<std::string> lines;
  size_t start = 0;
  while (start <= text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    std::string line = trimmedCopy(std::string_view(text).substr(start, end - start));
    if (!line.empty()) lines.push_back(std::move(line));
    start = end + 1;
  }
  if (lines.size() > count) lines.erase(lines.begin(), lines.end() - static_cast<long>(count));
  return lines;
}

std::string describeWaitStatus(int status) {
  if (WIFEXITED(status)) return "exit status " + std::to_string(WEXITSTATUS(status));
  if (WIFSIGNALED(status))
    return "killed by signal " + std::to_string(WTERMSIG(status)) + " (" + strsignal(WTERMSIG(status)) + ")";
  return "wait status " + std::to_string(status);
}

// Bytes that base64 text stands for, without decoding it.
size_t decodedSize(const std::string& base64) {
  size_t symbols = 0, padding = 0;
  for (char c : base64) {
    if (c == '=') ++padding;
    else if (c != '\n' && c != '\r' && c != ' ') ++symbols;
  }
  return (symbols + padding) / 4 * 3 - std::min<size_t>(padding, 2);
}

const std::string* stringField(const Json& object, const char* key) {
  auto it = object.find(key);
  return it != object.end() && it->is_string() ? &it->get_ref<const std::string&>() : nullptr;
}

}  // namespace

std::string ondrelFormatServerReports(const std::vector<McpServerReport>& servers) {
  if (servers.empty()) return "No MCP servers are configured under \"mcpServers\" in ~/.config/ondrel/config.json.\n";
  std::string out;
  for (const auto& server : servers) {
    out += server.ns;
    if (server.ns != server.name) out += " (\"" + server.name + "\")";
    if (server.tools) {
      out += ": running, " + std::to_string(server.tools->size()) + (server.tools->size() == 1 ? " tool\n" : " tools\n");
      for (const auto& tool : *server.tools) {
        out += "  " + tool.value("name", std::string("tool"));
        const std::string* description = stringField(tool, "description");
        std::string summary = description ? summaryOf(*description) : "";
        out += summary.empty() ? "\n" : " — " + summary + "\n";
      }
      continue;
    }
    // A server that is up but fails its listing is told apart from one
    // that never ran or has ended: the first needs its own log, the other
    // its standard error.
    out += !server.launched || server.exitStatus ? ": not running: " : ": no answer: ";
    out += server.failure;
    if (server.exitStatus) out += " (" + describeWaitStatus(*server.exitStatus) + ")";
    out += "\n";
    for (const auto& line : lastLines(server.standardError, kStderrLines)) out += "  stderr: " + line + "\n";
  }
  return out;
}

McpCallOutput ondrelFormatToolResult(const Json& result) {
  McpCallOutput output;
  if (!result.is_object()) return output;
  if (auto it = result.find("isError"); it != result.end() && it->is_boolean() && it->get<bool>()) output.status = 1;
  const std::string* text = stringField(result, "text");
  if (text && !text->empty()) {
    output.text = *text;
    if (output.text.back() != '\n') output.text += '\n';
  } else if (auto structured = result.find("structuredContent"); structured != result.end()) {
    output.text = structured->dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
  }
  if (auto images = result.find("images"); images != result.end() && images->is_array()) {
    for (const auto& image : *images) {
      const std::string* type = stringField(image, "mimeType");
      const std::string* data = stringField(image, "data");
      output.text += "[image: " + (type ? *type : std::string("image")) + ", " +
                     std::to_string(data ? decodedSize(*data) : 0) + " bytes]\n";
    }
  }
  return output;
}
