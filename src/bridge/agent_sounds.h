#pragma once

#include <functional>
#include <optional>
#include <string>

#include "base/json.h"

// Notification chimes, synthesised on first use (the app ships no sound
// files) and cached for the rest of the run.

// A tone table: [{"f": Hz, "s": start s, "d": duration s, "a": amplitude}, ...]
// → 16-bit mono 44.1 kHz WAV bytes; nullopt when the samples can't be allocated.
std::optional<std::string> ondrelSynthesizeTones(const Json& table);

const Json& agentSoundTable(const std::string& name);  // null for unknown names

class AgentSounds {
 public:
  // Plays a WAV file asynchronously; failures are silent.
  using Player = std::function<void(const std::string& wavPath)>;

  explicit AgentSounds(Player player);

  // "complete" or "error"; anything else is ignored.
  void playAgentSound(const std::string& name);

  // Writes the data to a fresh temporary file; the path, or nullopt.
  static std::optional<std::string> soundFromWav(const std::optional<std::string>& data);

 private:
  Player player_;
  std::optional<std::string> complete_;
  std::optional<std::string> error_;
};

// Plays through the desktop's sound server (libcanberra).
AgentSounds::Player systemSoundPlayer();
