// String tools on the kit's UTF-8 strings; comparisons and searches go
// through the platform's text comparison (PXStringComparison).
#include <pxkit/foundation/PXStringTools.h>
#include <pxkit/platform/PXUUID.h>
#include <unicode/uchar.h>
#include <unicode/utf16.h>
#include <unicode/utf8.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <string>

namespace {

// Each code point of `text` with its byte range; ill-formed bytes read as U+FFFD.
template <class Visit>
void forEachCodePoint(std::string_view text, Visit&& visit) {
  const auto* bytes = reinterpret_cast<const uint8_t*>(text.data());
  const auto length = static_cast<int32_t>(std::min<size_t>(text.size(), INT32_MAX));
  for (int32_t i = 0; i < length;) {
    const int32_t start = i;
    UChar32 c;
    U8_NEXT(bytes, i, length, c);
    visit(c < 0 ? 0xFFFD : c, static_cast<size_t>(start), static_cast<size_t>(i - start));
  }
}

void appendUtf8(std::string& out, UChar32 c) {
  uint8_t bytes[U8_MAX_LENGTH];
  int32_t n = 0;
  UBool error = false;
  U8_APPEND(bytes, n, U8_MAX_LENGTH, c, error);
  if (!error) out.append(reinterpret_cast<const char*>(bytes), static_cast<size_t>(n));
}

PXString keeping(std::string_view text, const std::function<bool(UChar32)>& keep) {
  std::string out;
  out.reserve(text.size());
  forEachCodePoint(text, [&](UChar32 c, size_t start, size_t length) {
    if (keep(c)) out.append(text.substr(start, length));
  });
  return PXString(out);
}

}  // namespace

namespace PXStringTools {

// ---- Making strings ---------------------------------------------------------

PXString uuid() {
  return PXUUID::createString();
}

PXString stringWithUniCodeChar(uint16_t character) {
  std::string out;
  appendUtf8(out, U16_IS_SURROGATE(character) ? 0xFFFD : character);
  return PXString(out);
}

PXString stringWithHexValuesForData(const PXData* data) {
  if (!data) return {};
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string out;
  out.reserve(data->length() * 2);
  for (uint8_t byte : data->bytes()) {
    out.push_back(kDigits[byte >> 4]);
    out.push_back(kDigits[byte & 0xF]);
  }
  return PXString(out);
}

// ---- Cutting ----------------------------------------------------------------

PXString reverseDomainParent(std::string_view self) {
  return subStringToOccurenceOf(self, ".", PXBackwardsSearch, {0, self.size()}, 1);
}

PXString domainParent(std::string_view self) {
  return subStringToOccurenceOf(self, ".", 0, {0, self.size()}, 1);
}

PXString subStringToOccurenceOf(std::string_view self, std::string_view needle, unsigned options,
                                PXRange range, size_t occurence) {
  const PXRange found = rangeOfString(self, needle, options, range, occurence);
  if (!found.found() || range.location > self.size() || found.location < range.location) return {};
  return PXString(self.substr(range.location, found.location - range.location));
}

// ---- Cleaning ---------------------------------------------------------------

PXString stripNonChar(std::string_view self) {
  return keeping(self, [](UChar32 c) {
    if (c >= '0' && c <= '9') return true;
    const int8_t type = u_charType(c);
    return type == U_UPPERCASE_LETTER || type == U_LOWERCASE_LETTER || type == U_TITLECASE_LETTER;
  });
}

PXString stringWithAllCharactersStrippedNotInCharacterSet(std::string_view self,
                                                          const std::function<bool(char32_t)>& isMember) {
  if (!isMember) return PXString("");
  return keeping(self, [&](UChar32 c) { return isMember(static_cast<char32_t>(c)); });
}

PXString quoteQuotes(std::string_view self) {
  std::string out;
  out.reserve(self.size() + 8);
  for (char c : self) {
    if (c == '"') out.push_back('\\');
    out.push_back(c);
  }
  return PXString(out);
}

PXString stringWithRemovedWhitespace(std::string_view self) {
  std::string removed;
  removed.reserve(self.size());
  for (char c : self) {
    if (c != ' ' && c != '\t' && c != '\n' && c != '\r') removed.push_back(c);
  }
  // Then any other white space (form feeds, no-break spaces, ...) at either end.
  size_t first = removed.size(), last = 0;
  forEachCodePoint(removed, [&](UChar32 c, size_t start, size_t length) {
    if (u_isUWhiteSpace(c)) return;
    first = std::min(first, start);
    last = start + length;
  });
  if (first >= last) return PXString("");
  return PXString(std::string_view(removed).substr(first, last - first));
}

PXString stringByReplacingString(std::string_view self, const PXString& target, const PXString& replacement,
                                 unsigned options) {
  if (!target || target.empty() || !replacement) return PXString(self);
  const bool backwards = (options & PXBackwardsSearch) != 0;
  const bool anchored = (options & PXAnchoredSearch) != 0;
  // The occurrences, in text order, not overlapping.
  std::vector<PXRange> found;
  PXRange window{0, self.size()};
  while (window.length > 0) {
    const PXRange r = PXStringFind(self, target.view(), options, window);
    if (!r.found() || r.length == 0) break;
    found.push_back(r);
    if (anchored) break;
    window = backwards ? PXRange{0, r.location} : PXRange{r.end(), self.size() - r.end()};
  }
  if (backwards) std::reverse(found.begin(), found.end());
  std::string out;
  size_t at = 0;
  for (const PXRange& r : found) {
    out.append(self.substr(at, r.location - at));
    out.append(replacement.view());
    at = r.end();
  }
  out.append(self.substr(at));
  return PXString(out);
}

PXString stringWithAddedPercentEscapes(std::string_view self) {
  static constexpr std::string_view kAllowed = "-._~:/?#[]@!$&'()*+,;=";
  static constexpr char kDigits[] = "0123456789ABCDEF";
  std::string out;
  out.reserve(self.size() * 3 / 2);
  for (char c : self) {
    const auto byte = static_cast<unsigned char>(c);
    const bool plain = (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') ||
                       (byte >= '0' && byte <= '9') ||
                       (byte != 0 && kAllowed.find(c) != std::string_view::npos);
    if (plain) {
      out.push_back(c);
    } else {
      out.push_back('%');
      out.push_back(kDigits[byte >> 4]);
      out.push_back(kDigits[byte & 0xF]);
    }
  }
  return PXString(out);
}

// ---- Searching --------------------------------------------------------------

PXRange rangeOfString(std::string_view self, std::string_view needle, unsigned options, PXRange /*range*/,
                      size_t occurence) {
  if (occurence == 0) return {};
  PXRange found = PXStringFind(self, needle, options);
  for (size_t count = 1; count < occurence; ++count) {
    if (!found.found()) return {};
    PXRange window;
    if (options & PXBackwardsSearch) {
      // Kept on purpose: one less than the previous location, so a needle
      // right before the previous occurrence is not seen.
      if (found.location == 0) return {};
      window = {0, found.location - 1};
    } else {
      if (found.end() >= self.size()) return {};
      window = {found.end(), self.size() - found.end()};
    }
    found = PXStringFind(self, needle, options, window);
  }
  return found;
}

bool containsString(std::string_view self, std::string_view other) {
  return !other.empty() && self.find(other) != std::string_view::npos;
}

char16_t* uniCharRepresentation(std::string_view self) {
  std::u16string units;
  units.reserve(self.size());
  forEachCodePoint(self, [&](UChar32 c, size_t, size_t) {
    if (c > 0xFFFF) {
      units.push_back(static_cast<char16_t>(U16_LEAD(c)));
      units.push_back(static_cast<char16_t>(U16_TRAIL(c)));
    } else {
      units.push_back(static_cast<char16_t>(c));
    }
  });
  if (units.empty()) return nullptr;
  auto* buffer = static_cast<char16_t*>(std::calloc(2 * units.size() + 1, 1));
  if (!buffer) return nullptr;
  std::copy(units.begin(), units.end(), buffer);
  return buffer;
}

// ---- Comparing --------------------------------------------------------------

PXComparisonResult compareVersionTo(std::string_view self, const PXString& other) {
  return compareVersionTo(self, other, ".");
}

PXComparisonResult compareVersionTo(std::string_view self, const PXString& other,
                                    std::string_view withSeperator) {
  if (!other) return PXOrderedSame;
  return PXCompareVersions(self, other.view(), withSeperator);
}

PXComparisonResult compareLikeFinder(std::string_view self, std::string_view other) {
  return PXStringCollate(self, other);
}

}  // namespace PXStringTools
