#pragma once

// Points HOME at a fresh directory for one test: settings and the updater's files go there.

#include <cstdlib>
#include <optional>
#include <string>

#include "test_files.h"

class HomeOverride {
 public:
  HomeOverride() {
    if (const char* home = std::getenv("HOME")) saved_ = home;
    setenv("HOME", home_.path().c_str(), 1);
  }
  ~HomeOverride() {
    if (saved_) setenv("HOME", saved_->c_str(), 1);
    else unsetenv("HOME");
  }
  const std::filesystem::path& path() const { return home_.path(); }
  void writeConfig(const std::string& text) const { writeText(home_.path() / ".config/ondrel/config.json", text); }
  std::filesystem::path dataDir() const { return home_.path() / ".local/share/ondrel"; }

 private:
  TempDir home_;
  std::optional<std::string> saved_;
};
