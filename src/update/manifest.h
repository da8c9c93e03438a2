#pragma once

#include <optional>
#include <string>
#include <vector>

// The release manifest ("latest.txt"): line 1 the version, line 2 the
// archive's file name next to the manifest.

inline constexpr const char* kManifestPath = "/releases/linux/latest.txt";

// "updateUrl" as it stands, else "updateBaseUrl" (or the built-in base)
// plus the manifest path; both normalised. nullopt when neither gives a URL.
std::optional<std::string> ondrelUpdateManifestURL();

// Splits at every line break (LF, CR, VT, FF, NEL, U+2028, U+2029), trims
// white space from each piece and drops the empty ones. Text that is not
// valid UTF-8 has no lines; a leading byte-order mark is dropped.
std::vector<std::string> ondrelManifestLines(const std::string& body);

// Whether the text holds at least one decimal digit of any script.
bool ondrelContainsDecimalDigit(const std::string& text);

// The manifest URL with its last path component replaced by the archive
// name (percent-encoded as a path segment); query and fragment are kept.
// "" when the manifest URL does not parse.
std::string ondrelZipURL(const std::string& manifestUrl, const std::string& zipName);

struct UpdateOffer {
  std::string remote;
  std::string current;
  std::string zipUrl;
};

// Judges the manifest answer against the running version and logs the
// verdict. httpStatus is -1 when there was no HTTP answer at all.
std::optional<UpdateOffer> ondrelEvaluateManifest(const std::string& manifestUrl, bool transferOk, long httpStatus,
                                                  const std::string& body, const std::string& current);
