#include "bridge/project_dirs.h"

#include "base/files.h"
#include "base/paths.h"

namespace {

std::optional<Json> readDefaults() { return readJsonObjectFile(ondrelDefaultsPath()); }

}  // namespace

std::optional<Json> projectDirs() {
  auto defaults = readDefaults();
  if (!defaults) return std::nullopt;
  auto it = defaults->find("projectDirs");
  if (it == defaults->end() || !it->is_object()) return std::nullopt;
  return *it;
}

bool setProjectDir(const std::string& projectId, const std::string& path) {
  Json defaults = readDefaults().value_or(Json::object());
  Json& dirs = defaults["projectDirs"];
  if (!dirs.is_object()) dirs = Json::object();
  dirs[projectId] = path;
  makeDirectories(ondrelDataDir());
  return writeFileAtomically(ondrelDefaultsPath(), defaults.dump(2, ' ', false, Json::error_handler_t::replace) + "\n")
      .ok;
}
