#pragma once

#include <string>

// The shell script that swaps the bundles once the app has gone: running
// bundle aside, new bundle into its place, backup removed, app started
// again, all output appended to the install log. Paths go between single
// quotes as they are.
std::string ondrelSwapScriptText(const std::string& runningBundle, const std::string& newBundle,
                                 const std::string& installLog);
