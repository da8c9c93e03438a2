#include "update/swap_script.h"

std::string ondrelSwapScriptText(const std::string& runningBundle, const std::string& newBundle,
                                 const std::string& installLog) {
  std::string text;
  text += "#!/bin/sh\n";
  text += "sleep 1\n";
  text += "APP='" + runningBundle + "'\n";
  text += "NEW='" + newBundle + "'\n";
  text += "BAK=\"$APP.ondrel.bak\"\n";
  text += "{\n";
  text += "  rm -rf \"$BAK\"\n";
  text += "  [ -d \"$APP\" ] && mv \"$APP\" \"$BAK\"\n";
  text += "  mv \"$NEW\" \"$APP\"\n";
  text += "  rm -rf \"$BAK\"\n";
  text += "  setsid \"$APP/AppRun\" </dev/null >/dev/null 2>&1 &\n";
  text += "  exit 0\n";
  text += "} >>\"" + installLog + "\" 2>&1 || {\n";
  text += "  [ -d \"$BAK\" ] && [ ! -d \"$APP\" ] && mv \"$BAK\" \"$APP\"\n";
  text += "}\n";
  return text;
}
