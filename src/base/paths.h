#pragma once

#include <string>

// Well-known places, all absolute.
std::string ondrelHomeDir();          // the user's home folder
std::string ondrelConfigPath();       // ~/.config/ondrel/config.json
std::string ondrelDataDir();          // ~/.local/share/ondrel
std::string ondrelDefaultsPath();     // ~/.local/share/ondrel/defaults.json
