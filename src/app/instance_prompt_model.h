#pragma once

#include <optional>
#include <string>

// Everything the first-run prompt decides, without a window.

struct InstancePromptTexts {
  std::string heading;
  std::string explanation;
  std::string fieldLabel;
  std::string confirm;
  std::string cancel;
  std::string error;
};

// German when the first preferred language begins with "de", else English.
InstancePromptTexts instancePromptTextsFor(const std::string& firstPreferredLanguage);

// The normalised, allowed address for what the user typed, or nullopt.
std::optional<std::string> acceptedInstanceAddress(const std::string& typed);

// States of one prompt run: editing, editing with the error line shown,
// finished (with or without a result).
class InstancePromptModel {
 public:
  enum class Confirm { Accepted, Refused };

  Confirm confirm(const std::string& text);
  // After every edit. Returns true when the error line must now be hidden.
  bool textChanged(const std::string& text);
  void cancel();

  bool errorShown() const { return errorShown_; }
  bool finished() const { return finished_; }
  const std::optional<std::string>& result() const { return result_; }

 private:
  bool errorShown_ = false;
  bool finished_ = false;
  std::optional<std::string> result_;
};
