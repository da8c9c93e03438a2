#pragma once

#include <optional>
#include <string>

// The About panel's text: tagline, then version and build, the instance
// server's host and where updates come from ("disabled" when they are off),
// and a line of warning when updates are not signature-checked.
std::string ondrelAboutText(const std::string& version, const std::string& build,
                            const std::optional<std::string>& serverUrl, bool updatesSigned);
