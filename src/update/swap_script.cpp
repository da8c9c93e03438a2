#include "update/swap_script.h"

namespace {

// Single quotes keep every byte but the quote itself, which is closed,
// escaped and reopened.
std::string shellQuoted(const std::string& text) {
  std::string out = "'";
  for (char c : text) {
    if (c == '\'') out += "'\\''";
    else out += c;
  }
  return out + "'";
}

// The paths are assigned at the top; the rest never changes. The staged
// copy sits beside the installed AppDir so that the swap itself is two
// renames on one file system: the copy from the staging folder (which may
// be on another one, and may fill a disk) happens while the installed
// AppDir is still untouched.
constexpr const char* kBody = R"SH(BAK="$APP.ondrel.bak"
NEXT="$APP.ondrel.new"
ASIDE=

# Without a log the swap still happens, unrecorded.
( : >>"$LOG" ) 2>/dev/null || LOG=/dev/null
exec >>"$LOG" 2>&1

say() { printf '%s %s\n' "$(date '+%Y-%m-%d %H:%M:%S')" "$*"; }
start() {
  setsid "$1/AppRun" </dev/null >/dev/null 2>&1 &
  say "started $1"
}
# Ends the swap with the installed version in place and running.
give_up() {
  say "failed: $1"
  rm -rf "$NEXT"
  if [ -n "$ASIDE" ]; then
    if [ ! -e "$APP" ] && [ ! -L "$APP" ] && mv "$BAK" "$APP"; then
      say "put $BAK back at $APP"
    else
      say "could not put $BAK back at $APP; starting it from there"
      start "$BAK"
      exit 1
    fi
  fi
  start "$APP"
  exit 1
}
gone() {
  read -r stat <"/proc/$1/stat" 2>/dev/null || return 0
  case $stat in *") Z "*) return 0 ;; esac
  return 1
}

# The app ends right after starting this script; it must be gone before
# its AppDir moves and a new copy starts (at most 10 s).
n=0
while ! gone "$WAIT_PID" && [ "$n" -lt 100 ]; do sleep 0.1; n=$((n + 1)); done

say "installing $NEW as $APP"
# A backup left by an earlier swap is deleted only while an installed
# AppDir exists beside it.
if [ -d "$APP" ]; then rm -rf "$BAK"; fi
rm -rf "$NEXT"
if [ -e "$BAK" ] || [ -L "$BAK" ] || [ -e "$NEXT" ] || [ -L "$NEXT" ]; then
  give_up "$BAK or $NEXT is in the way"
fi
mv "$NEW" "$NEXT" || give_up "moving $NEW to $NEXT"
say "moved $NEW to $NEXT"
if [ -d "$APP" ]; then
  mv "$APP" "$BAK" || give_up "moving $APP aside to $BAK"
  ASIDE=1
  say "moved $APP aside to $BAK"
fi
mv "$NEXT" "$APP" || give_up "moving $NEXT to $APP"
say "moved $NEXT to $APP"
if [ -n "$ASIDE" ]; then
  if rm -rf "$BAK"; then say "removed $BAK"; else say "could not remove $BAK"; fi
fi
start "$APP"
exit 0
)SH";

}  // namespace

std::string ondrelSwapScriptText(const std::string& runningBundle, const std::string& newBundle,
                                 const std::string& installLog, pid_t appPid) {
  return "#!/bin/sh\n"
         "# Puts a new Ondrel AppDir in the place of the installed one. The installed\n"
         "# AppDir is deleted only once the new one is in its place.\n"
         "APP=" + shellQuoted(runningBundle) + "\n" +
         "NEW=" + shellQuoted(newBundle) + "\n" +
         "LOG=" + shellQuoted(installLog) + "\n" +
         "WAIT_PID=" + std::to_string(appPid) + "\n" + kBody;
}
