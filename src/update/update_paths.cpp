#include "update/update_paths.h"

#include "base/paths.h"

std::string ondrelPendingUpdatePath() { return ondrelDataDir() + "/pending-update.json"; }
std::string ondrelUpdatesDir() { return ondrelDataDir() + "/updates"; }
std::string ondrelStageDir() { return ondrelUpdatesDir() + "/stage"; }
std::string ondrelSwapScriptPath() { return ondrelUpdatesDir() + "/install-and-relaunch.sh"; }
std::string ondrelInstallLogPath() { return ondrelUpdatesDir() + "/install.log"; }
