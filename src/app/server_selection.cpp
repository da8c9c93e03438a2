#include "app/server_selection.h"

#include "base/files.h"
#include "base/json.h"
#include "base/log.h"
#include "base/paths.h"
#include "base/server_address.h"
#include "build_config.h"

namespace {

const std::string kRefusedReason =
    std::string("(only *.") + ondrel::build::kServiceDomain + " or localhost servers are allowed)";
const std::string kInvalidReason = "(expected an http/https URL)";

std::optional<std::string> candidateFrom(const Json& value) {
  auto expanded = ondrelExpandServerInput(value);
  if (!expanded) return std::nullopt;
  return ondrelNormalizeServer(*expanded);
}

void saveChoice(const std::string& path, const std::string& server) {
  makeDirectories(parentDirectory(path));
  Json config = Json::object();
  if (auto existing = readJsonObjectFile(path)) config = std::move(*existing);
  config["server"] = server;
  // The file is written with sorted keys; a plain (sorted) json does that.
  nlohmann::json sorted = nlohmann::json::parse(config.dump());
  std::string text = sorted.dump(2, ' ', false, nlohmann::json::error_handler_t::replace);
  auto written = writeFileAtomically(path, text);
  if (written.ok) {
    logLine("[Server] saved \"server\" to " + path);
  } else {
    logLine("[Server] could not save the chosen server to " + path + " (" +
            (written.error.empty() ? "unknown error" : written.error) + ")");
  }
}

}  // namespace

std::optional<std::string> ondrelCommandLineServer(const std::string& argument) {
  auto candidate = candidateFrom(argument);
  if (candidate && ondrelIsAllowedServerURL(*candidate)) {
    logLine("[Server] loading " + *candidate + " (from command line)");
    return candidate;
  }
  if (candidate) {
    logLine("[Server] ignoring command-line URL " + kRefusedReason);
  } else {
    logLine("[Server] ignoring invalid command-line URL " + kInvalidReason);
  }
  return std::nullopt;
}

std::optional<std::string> ondrelResolveServer(const std::optional<std::string>& cmdline,
                                               const std::string& configPath,
                                               const InstancePromptRunner& runPrompt) {
  if (cmdline && !cmdline->empty()) {
    if (auto server = ondrelCommandLineServer(*cmdline)) return server;
  }

  if (auto bytes = readWholeFile(configPath)) {
    auto parsed = parseJson(*bytes);
    if (!parsed || !parsed->is_object()) {
      logLine("[Server] " + configPath + " is not a JSON object — ignoring its \"server\" entry, if any");
    } else if (auto it = parsed->find("server"); it != parsed->end()) {
      auto candidate = candidateFrom(*it);
      if (candidate && ondrelIsAllowedServerURL(*candidate)) {
        logLine("[Server] loading " + *candidate + " (from \"server\" in " + configPath + ")");
        return candidate;
      }
      logLine("[Server] ignoring \"server\" value in " + configPath + " " +
              (candidate ? kRefusedReason : kInvalidReason));
    }
  }

  std::optional<std::string> chosen = runPrompt ? runPrompt() : std::nullopt;
  if (!chosen) {
    logLine("[Server] no server chosen — startup cancelled");
    return std::nullopt;
  }
  saveChoice(configPath, *chosen);
  logLine("[Server] loading " + *chosen + " (chosen in the first-run prompt)");
  return chosen;
}
