#include "update/version.h"

#include <vector>

#include "build_config.h"

namespace {

bool isDigit(char c) { return c >= '0' && c <= '9'; }

std::vector<std::string_view> splitAtDots(std::string_view text) {
  std::vector<std::string_view> parts;
  size_t start = 0;
  while (true) {
    size_t dot = text.find('.', start);
    if (dot == std::string_view::npos) {
      parts.push_back(text.substr(start));
      return parts;
    }
    parts.push_back(text.substr(start, dot - start));
    start = dot + 1;
  }
}

// Digit runs of any length: compare without converting, so "0000000000000001"
// and a 40-digit component never overflow.
int compareDigitRuns(std::string_view a, std::string_view b) {
  while (a.size() > 1 && a.front() == '0') a.remove_prefix(1);
  while (b.size() > 1 && b.front() == '0') b.remove_prefix(1);
  if (a.size() != b.size()) return a.size() < b.size() ? -1 : 1;
  int order = a.compare(b);
  return order < 0 ? -1 : (order > 0 ? 1 : 0);
}

}  // namespace

std::string ondrelVersionOrDefault(std::string_view version) {
  return version.empty() ? std::string("0.0.0") : std::string(version);
}

std::string ondrelCurrentVersion() { return ondrelVersionOrDefault(ondrel::build::kVersion); }

std::string ondrelCurrentBuild() { return ondrel::build::kBuild; }

int ondrelCompareNumeric(std::string_view a, std::string_view b) {
  size_t i = 0, j = 0;
  while (i < a.size() && j < b.size()) {
    if (isDigit(a[i]) && isDigit(b[j])) {
      size_t iEnd = i, jEnd = j;
      while (iEnd < a.size() && isDigit(a[iEnd])) ++iEnd;
      while (jEnd < b.size() && isDigit(b[jEnd])) ++jEnd;
      if (int order = compareDigitRuns(a.substr(i, iEnd - i), b.substr(j, jEnd - j))) return order;
      i = iEnd;
      j = jEnd;
      continue;
    }
    // Bytewise order of UTF-8 is code-point order.
    auto ca = static_cast<unsigned char>(a[i]), cb = static_cast<unsigned char>(b[j]);
    if (ca != cb) return ca < cb ? -1 : 1;
    ++i;
    ++j;
  }
  if (i < a.size()) return 1;
  if (j < b.size()) return -1;
  return 0;
}

int ondrelCompareVersions(std::string_view a, std::string_view b) {
  auto left = splitAtDots(a), right = splitAtDots(b);
  size_t n = std::max(left.size(), right.size());
  for (size_t i = 0; i < n; ++i) {
    std::string_view x = i < left.size() ? left[i] : "0";
    std::string_view y = i < right.size() ? right[i] : "0";
    if (int order = ondrelCompareNumeric(x, y)) return order;
  }
  return 0;
}
