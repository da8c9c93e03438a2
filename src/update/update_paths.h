#pragma once

#include <string>

// Where the updater keeps its files, all under ~/.local/share/ondrel.
std::string ondrelPendingUpdatePath();  // pending-update.json
std::string ondrelUpdatesDir();         // updates/
std::string ondrelStageDir();           // updates/stage
std::string ondrelSwapScriptPath();     // updates/install-and-relaunch.sh
std::string ondrelInstallLogPath();     // updates/install.log
