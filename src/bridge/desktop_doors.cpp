#include "bridge/desktop_doors.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstring>

#include "bridge/sandbox_args.h"

namespace {

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

std::string unescapeBusValue(const std::string& value) {
  std::string out;
  for (size_t i = 0; i < value.size(); ++i) {
    if (value[i] == '%' && i + 2 < value.size() && hexValue(value[i + 1]) >= 0 && hexValue(value[i + 2]) >= 0) {
      out += static_cast<char>(hexValue(value[i + 1]) * 16 + hexValue(value[i + 2]));
      i += 2;
    } else {
      out += value[i];
    }
  }
  return out;
}

bool exists(const std::string& path, bool folder) {
  struct stat st {};
  return lstat(path.c_str(), &st) == 0 && (folder ? S_ISDIR(st.st_mode) : S_ISSOCK(st.st_mode));
}

}  // namespace

std::vector<std::string> busSocketPaths(const std::string& address) {
  std::vector<std::string> paths;
  size_t start = 0;
  while (start <= address.size()) {
    size_t end = address.find(';', start);
    if (end == std::string::npos) end = address.size();
    const std::string entry = address.substr(start, end - start);
    if (entry.rfind("unix:", 0) == 0) {
      size_t key = 5;
      while (key < entry.size()) {
        size_t comma = entry.find(',', key);
        if (comma == std::string::npos) comma = entry.size();
        if (entry.compare(key, 5, "path=") == 0) paths.push_back(unescapeBusValue(entry.substr(key + 5, comma - key - 5)));
        key = comma + 1;
      }
    }
    start = end + 1;
  }
  return paths;
}

DesktopDoors findDesktopDoors(const std::string& runtimeDir, const std::string& busAddress) {
  DesktopDoors doors;
  std::vector<std::string> sockets = busSocketPaths(busAddress);
  if (!runtimeDir.empty()) {
    sockets.push_back(joinPath(runtimeDir, "bus"));
    for (const char* name : {"systemd", "at-spi"})
      if (exists(joinPath(runtimeDir, name), true)) doors.folders.push_back(joinPath(runtimeDir, name));
    if (DIR* dir = opendir(runtimeDir.c_str())) {
      while (dirent* entry = readdir(dir))
        if (std::strncmp(entry->d_name, "wayland-", 8) == 0) sockets.push_back(joinPath(runtimeDir, entry->d_name));
      closedir(dir);
    }
  }
  for (const auto& socket : sockets) {
    bool seen = std::find(doors.sockets.begin(), doors.sockets.end(), socket) != doors.sockets.end();
    if (!seen && exists(socket, false)) doors.sockets.push_back(socket);
  }
  if (exists("/tmp/.X11-unix", true)) doors.folders.push_back("/tmp/.X11-unix");
  return doors;
}
