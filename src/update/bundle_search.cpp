#include "update/bundle_search.h"

#include <glib.h>
#include <sys/stat.h>

#include <filesystem>

namespace fs = std::filesystem;

namespace {

bool hasAppDirSuffix(const std::string& name) {
  static const std::string suffix = ".appdir";
  if (name.size() < suffix.size()) return false;
  g_autofree gchar* lower = g_ascii_strdown(name.c_str() + name.size() - suffix.size(), -1);
  return suffix == lower;
}

// A real folder, not a link to one: a link could make the swap move
// something that lives outside the staging folder.
bool isRealDirectory(const fs::path& path) {
  std::error_code ec;
  return fs::symlink_status(path, ec).type() == fs::file_type::directory;
}

bool hasVisibleEntry(const fs::path& dir) {
  std::error_code ec;
  for (fs::directory_iterator it(dir, ec), end; !ec && it != end; it.increment(ec)) {
    if (it->path().filename().string().rfind('.', 0) != 0) return true;
  }
  return false;
}

}  // namespace

std::optional<std::string> ondrelFindBundle(const std::string& stageDir) {
  const fs::path stage(stageDir);
  std::error_code ec;
  for (fs::directory_iterator it(stage, ec), end; !ec && it != end; it.increment(ec)) {
    const fs::path& candidate = it->path();
    if (!hasAppDirSuffix(candidate.filename().string()) || !isRealDirectory(candidate)) continue;
    fs::path bin = candidate / "usr" / "bin";
    if (isRealDirectory(bin) && hasVisibleEntry(bin)) return candidate.string();
  }

  ec.clear();
  for (fs::recursive_directory_iterator it(stage, fs::directory_options::skip_permission_denied, ec), end; !ec && it != end; it.increment(ec)) {
    const fs::path& candidate = it->path();
    std::string relative = candidate.lexically_relative(stage).generic_string();
    if (!hasAppDirSuffix(relative) || relative.rfind("._", 0) == 0) continue;
    if (isRealDirectory(candidate) && isRealDirectory(candidate / "usr" / "bin")) return candidate.string();
  }
  return std::nullopt;
}

std::string ondrelBundleDefect(const std::string& bundle) {
  for (const char* part : {"AppRun", "usr/bin/ondrel"}) {
    struct stat info {};
    if (lstat((fs::path(bundle) / part).c_str(), &info) != 0) return std::string("it has no ") + part;
    if (!S_ISREG(info.st_mode)) return std::string("its ") + part + " is not a regular file";
    if (!(info.st_mode & S_IXUSR)) return std::string("its ") + part + " is not executable";
  }
  return "";
}

std::optional<std::string> ondrelBundleOfExecutable(const std::string& executablePath) {
  fs::path bin = fs::path(executablePath).parent_path();
  if (bin.filename() != "bin") return std::nullopt;
  fs::path usr = bin.parent_path();
  if (usr.filename() != "usr") return std::nullopt;
  fs::path bundle = usr.parent_path();
  if (!hasAppDirSuffix(bundle.filename().string())) return std::nullopt;
  return bundle.string();
}
