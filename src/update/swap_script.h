#pragma once

#include <string>
#include <sys/types.h>

// The shell script that swaps the AppDirs once the app (process appPid)
// has gone: the new AppDir is first moved beside the installed one, the
// installed one is renamed aside, the new one renamed into its place. Only
// then is the old one deleted and the new one started; when any step fails
// the installed one is put back and started instead. Every step is logged
// to installLog. Paths may hold any byte (quotes, blanks, newlines).
std::string ondrelSwapScriptText(const std::string& runningBundle, const std::string& newBundle,
                                 const std::string& installLog, pid_t appPid);
