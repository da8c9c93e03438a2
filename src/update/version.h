#pragma once

#include <string>
#include <string_view>

// The running build's version ("0.0.0" when the build left it empty) and
// build number (shown as it is, also when empty).
std::string ondrelCurrentVersion();
std::string ondrelCurrentBuild();
std::string ondrelVersionOrDefault(std::string_view version);

// Orders two dot-separated versions component by component; a missing
// component counts as "0". Negative when a < b, 0 when equal, positive
// when a > b.
int ondrelCompareVersions(std::string_view a, std::string_view b);

// One component pair: digit runs by numeric value, every other character
// by itself (case-sensitive); a proper prefix sorts first.
int ondrelCompareNumeric(std::string_view a, std::string_view b);
