#include "app/instance_prompt_model.h"

#include "base/server_address.h"
#include "build_config.h"

InstancePromptTexts instancePromptTextsFor(const std::string& language) {
  const std::string domain = ondrel::build::kServiceDomain;
  if (language.rfind("de", 0) == 0) {
    return {"Mit Ondrel verbinden", "Gib die Adresse deiner Ondrel-Instanz ein.", "Instanz-Adresse", "Weiter",
            "Abbrechen", "Die Adresse muss auf " + domain + " enden oder localhost sein."};
  }
  return {"Connect to Ondrel", "Enter the address of your Ondrel instance.", "Instance address", "Continue",
          "Cancel", "The address must end with " + domain + " or be localhost."};
}

std::optional<std::string> acceptedInstanceAddress(const std::string& typed) {
  auto expanded = ondrelExpandServerInput(typed);
  if (!expanded) return std::nullopt;
  auto candidate = ondrelNormalizeServer(*expanded);
  if (!candidate || !ondrelIsAllowedServerURL(*candidate)) return std::nullopt;
  return candidate;
}

InstancePromptModel::Confirm InstancePromptModel::confirm(const std::string& text) {
  if (auto accepted = acceptedInstanceAddress(text)) {
    result_ = std::move(accepted);
    finished_ = true;
    return Confirm::Accepted;
  }
  errorShown_ = true;
  return Confirm::Refused;
}

bool InstancePromptModel::textChanged(const std::string& text) {
  // No validation before the first refused confirm.
  if (!errorShown_) return false;
  if (!acceptedInstanceAddress(text)) return false;
  errorShown_ = false;
  return true;
}

void InstancePromptModel::cancel() {
  result_.reset();
  finished_ = true;
}
