#pragma once

#include <optional>
#include <string>

// The About panel's text: tagline, then version and build, the instance
// server's host and where updates come from ("disabled" when they are off).
std::string ondrelAboutText(const std::string& version, const std::string& build,
                            const std::optional<std::string>& serverUrl);

// Shows the About panel for the running build (main thread).
void ondrelShowAbout(const std::optional<std::string>& serverUrl);
