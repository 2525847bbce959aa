// The version ordering of rules; see VersionOrder.h.
#include "rules/internal/VersionOrder.h"

#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

namespace pxkit::rules {

namespace {

std::vector<std::string_view> components(std::string_view text, char separator) {
  std::vector<std::string_view> parts;
  for (;;) {
    const size_t at = text.find(separator);
    parts.push_back(text.substr(0, at));
    if (at == std::string_view::npos) return parts;
    text.remove_prefix(at + 1);
  }
}

long long integerValue(std::string_view text) {
  return std::strtoll(std::string(text).c_str(), nullptr, 10);
}

PXComparisonResult compareWith(std::string_view a, std::string_view b, char separator) {
  const std::vector<std::string_view> left = components(a, separator);
  const std::vector<std::string_view> right = components(b, separator);
  size_t i = 0;
  for (; i < left.size() && i < right.size(); ++i) {
    if (left[i] == right[i]) continue;
    if (separator == ' ') {
      // Kept on purpose: anything but "greater" is "ascending", in both directions.
      return integerValue(left[i]) > integerValue(right[i]) ? PXOrderedDescending : PXOrderedAscending;
    }
    return compareWith(left[i], right[i], ' ');
  }
  auto leftOver = [](const std::vector<std::string_view>& parts, size_t at) {
    // Only the first leftover component and the one after it are looked at.
    if (parts[at] != "0") return true;
    return at + 1 < parts.size() && !parts[at + 1].empty();
  };
  if (i < left.size()) return leftOver(left, i) ? PXOrderedDescending : PXOrderedSame;
  if (i < right.size()) return leftOver(right, i) ? PXOrderedAscending : PXOrderedSame;
  return PXOrderedSame;
}

}  // namespace

PXComparisonResult compareVersions(const PXString& version, const PXString& other) {
  if (!version || !other) return PXOrderedSame;
  return compareWith(version.view(), other.view(), '.');
}

}  // namespace pxkit::rules
