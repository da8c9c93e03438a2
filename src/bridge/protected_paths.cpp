#include "bridge/protected_paths.h"

#include "bridge/sandbox_args.h"

namespace {

// Login and interactive start-up files of bash, zsh and the POSIX shells,
// and X session scripts; fish keeps all of its own in one folder.
constexpr const char* kStartupFiles[] = {
    ".profile", ".bash_profile", ".bash_login", ".bashrc", ".bash_logout", ".zshenv",
    ".zprofile", ".zshrc", ".zlogin", ".zlogout", ".xprofile", ".xsessionrc",
};

}  // namespace

ReadOnlyPlan readOnlyPlan(const std::string& home, const std::string& configHome,
                          const std::optional<std::string>& appDir, const std::vector<std::string>& userPaths) {
  ReadOnlyPlan plan;
  // The app's own settings (its MCP servers run unconfined), its data (a
  // scheduled update, the website data) and the web view's cache, which
  // holds the instance's service workers.
  const std::string config = joinPath(home, ".config");
  plan.folders = {joinPath(config, "ondrel"), joinPath(home, ".local/share/ondrel"), joinPath(home, ".cache/ondrel")};
  std::vector<std::string> desktopConfig = {config};
  if (configHome != config) desktopConfig.push_back(configHome);
  for (const auto& base : desktopConfig)
    for (const char* name : {"autostart", "systemd/user", "environment.d"}) plan.folders.push_back(joinPath(base, name));
  // Which program opens a link: the app hands foreign links to it.
  plan.folders.push_back(joinPath(home, ".local/share/applications"));
  for (const auto& base : desktopConfig) plan.ifPresent.push_back(joinPath(base, "mimeapps.list"));
  for (const char* name : kStartupFiles) plan.ifPresent.push_back(joinPath(home, name));
  plan.ifPresent.push_back(joinPath(configHome, "fish"));
  if (appDir) plan.ifPresent.push_back(*appDir);
  plan.ifPresent.insert(plan.ifPresent.end(), userPaths.begin(), userPaths.end());
  return plan;
}

std::vector<std::string> userReadOnlyEntries(const std::optional<Json>& config) {
  std::vector<std::string> entries;
  if (!config) return entries;
  auto it = config->find("sandboxReadOnly");
  if (it == config->end() || !it->is_array()) return entries;
  for (const auto& entry : *it)
    if (entry.is_string() && !entry.get_ref<const std::string&>().empty()) entries.push_back(entry.get<std::string>());
  return entries;
}
