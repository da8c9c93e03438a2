#pragma once

#include <optional>
#include <string>

// The first-run window that asks for the instance address. Runs modally in a
// nested main loop; returns the normalised, allowed address, or nullopt when
// the user cancels (button, Escape or the window's close request).
class OndrelInstancePrompt {
 public:
  std::optional<std::string> run();
};
