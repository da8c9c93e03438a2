#include "bridge/platform_info.h"

#include <pwd.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cstdlib>

std::string kernelVersionTriple(const std::string& release) {
  long parts[3] = {0, 0, 0};
  const char* p = release.c_str();
  for (int i = 0; i < 3; ++i) {
    char* end = nullptr;
    long value = std::strtol(p, &end, 10);
    if (end == p) break;
    parts[i] = value;
    if (*end != '.') break;
    p = end + 1;
  }
  return std::to_string(parts[0]) + "." + std::to_string(parts[1]) + "." + std::to_string(parts[2]);
}

Json platformInfo() {
  struct utsname uts {};
  std::string release = uname(&uts) == 0 ? uts.release : "";
  std::string user, home;
  if (const passwd* pw = getpwuid(getuid())) {
    user = pw->pw_name ? pw->pw_name : "";
    home = pw->pw_dir ? pw->pw_dir : "";
  }
  return Json{{"name", "Linux"}, {"version", kernelVersionTriple(release)}, {"user", user}, {"home", home}};
}
