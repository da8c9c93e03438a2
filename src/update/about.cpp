#include "update/about.h"

#include "base/server_address.h"
#include "base/settings.h"
#include "build_config.h"
#include "update/manifest.h"
#include "update/update_host.h"
#include "update/update_signature.h"
#include "update/updater.h"
#include "update/version.h"

namespace {

constexpr const char* kTagline = "Your AI workspace, at home on your desktop.";

std::string updateSource() {
  if (ondrel::build::kPackaged) return "the system's package manager";
  if (!ondrelUpdatesEnabled()) return "disabled";
  auto url = ondrelUpdateManifestURL();
  if (!url || url->empty()) return "disabled";
  return ondrelServerHostOf(*url);
}

}  // namespace

std::string ondrelAboutText(const std::string& version, const std::string& build,
                            const std::optional<std::string>& serverUrl, bool updatesSigned) {
  std::string host = serverUrl ? ondrelServerHostOf(*serverUrl) : std::string();
  if (host.empty()) host = "—";
  return std::string(kTagline) + "\n\n" + "Version " + ondrelVersionOrDefault(version) + " (build " + build +
         ")\nInstance Server: " + host + "\nUpdate Source: " + updateSource() +
         (updatesSigned ? "" : "\nUpdates are not signature-checked.");
}

void Updater::showAbout(const std::optional<std::string>& serverUrl) {
  // A packaged copy installs no archives of its own: nothing to check.
  bool checked = ondrel::build::kPackaged || ondrelUpdatesAreSigned();
  host_.showAbout(ondrelAboutText(ondrelCurrentVersion(), ondrelCurrentBuild(), serverUrl, checked));
}
