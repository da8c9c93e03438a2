#include "base/paths.h"

#include <glib.h>

std::string ondrelHomeDir() {
  // HOME wins over the passwd entry so that a session (and every test) can
  // point the app at another home.
  const char* home = g_getenv("HOME");
  if (home && *home) return home;
  return g_get_home_dir();
}

std::string ondrelConfigPath() { return ondrelHomeDir() + "/.config/ondrel/config.json"; }

std::string ondrelDataDir() { return ondrelHomeDir() + "/.local/share/ondrel"; }

std::string ondrelDefaultsPath() { return ondrelDataDir() + "/defaults.json"; }
