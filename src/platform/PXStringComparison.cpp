// Comparing and searching text with options, on ICU's case folding,
// normalization and collation; and the two version orderings.
#include <pxkit/platform/PXStringComparison.h>
#include <unicode/coll.h>
#include <unicode/normalizer2.h>
#include <unicode/uchar.h>
#include <unicode/unistr.h>
#include <unicode/ustring.h>
#include <unicode/utf16.h>
#include <unicode/utf8.h>

#include <algorithm>
#include <cctype>
#include <climits>
#include <cstdint>
#include <memory>
#include <vector>

namespace {

constexpr unsigned kFoldingOptions = PXCaseInsensitiveSearch | PXDiacriticInsensitiveSearch;

// The next code point of `text` at `i` (advanced); ill-formed bytes give U+FFFD.
UChar32 nextCodePoint(std::string_view text, size_t& i) {
  UChar32 c;
  const auto length = static_cast<int32_t>(std::min<size_t>(text.size(), INT32_MAX));
  auto at = static_cast<int32_t>(i);
  U8_NEXT(reinterpret_cast<const uint8_t*>(text.data()), at, length, c);
  i = static_cast<size_t>(at);
  return c < 0 ? 0xFFFD : c;
}

void appendUtf8(std::string& out, UChar32 c) {
  uint8_t bytes[U8_MAX_LENGTH];
  int32_t n = 0;
  UBool error = false;
  U8_APPEND(bytes, n, U8_MAX_LENGTH, c, error);
  if (!error) out.append(reinterpret_cast<const char*>(bytes), static_cast<size_t>(n));
}

// Where each byte of a comparison form came from: the source character's bytes.
struct SourceSpan {
  uint32_t start;
  uint32_t end;
};

// Appends the comparison form of `text` to `out`; with `spans`, one span per
// byte appended, offsets relative to `text`. Character by character, so that
// every byte of the form knows its source character.
void foldInto(std::string_view text, unsigned options, std::string& out, std::vector<SourceSpan>* spans) {
  const bool caseless = (options & PXCaseInsensitiveSearch) != 0;
  const bool markless = (options & PXDiacriticInsensitiveSearch) != 0;
  const bool decompose = markless || (caseless && !(options & PXLiteralSearch));
  UErrorCode status = U_ZERO_ERROR;
  const icu::Normalizer2* nfd = decompose ? icu::Normalizer2::getNFDInstance(status) : nullptr;
  if (U_FAILURE(status)) nfd = nullptr;
  out.reserve(out.size() + text.size());
  icu::UnicodeString piece;
  UChar folded[64];
  for (size_t i = 0; i < text.size();) {
    const size_t start = i;
    const UChar32 c = nextCodePoint(text, i);
    const size_t before = out.size();
    if (c < 0x80) {
      out.push_back(static_cast<char>(caseless && c >= 'A' && c <= 'Z' ? c + ('a' - 'A') : c));
    } else {
      piece.remove();
      if (!nfd || !nfd->getDecomposition(c, piece)) piece.setTo(c);
      const UChar* units = piece.getBuffer();
      int32_t count = piece.length();
      if (caseless) {
        UErrorCode foldStatus = U_ZERO_ERROR;
        const int32_t n = u_strFoldCase(folded, 64, units, count, U_FOLD_CASE_DEFAULT, &foldStatus);
        if (U_SUCCESS(foldStatus) && n <= 64) {
          units = folded;
          count = n;
        }
      }
      for (int32_t k = 0; k < count;) {
        UChar32 d;
        U16_NEXT(units, k, count, d);
        if (markless && u_charType(d) == U_NON_SPACING_MARK) continue;
        appendUtf8(out, d);
      }
    }
    if (spans)
      spans->insert(spans->end(), out.size() - before,
                    SourceSpan{static_cast<uint32_t>(start), static_cast<uint32_t>(i)});
  }
}

std::string recomposed(std::string folded) {
  UErrorCode status = U_ZERO_ERROR;
  const icu::Normalizer2* nfc = icu::Normalizer2::getNFCInstance(status);
  if (U_FAILURE(status)) return folded;
  icu::UnicodeString text = icu::UnicodeString::fromUTF8(folded);
  icu::UnicodeString composed = nfc->normalize(text, status);
  if (U_FAILURE(status)) return folded;
  std::string out;
  composed.toUTF8String(out);
  return out;
}

// The rank of a code point in UTF-16 code unit order: its first unit, then
// (for two code points sharing a lead surrogate) the code point itself.
uint64_t utf16Rank(UChar32 c) {
  const uint32_t lead =
      c < 0x10000 ? static_cast<uint32_t>(c) : 0xD800u + ((static_cast<uint32_t>(c) - 0x10000u) >> 10);
  return (static_cast<uint64_t>(lead) << 32) | static_cast<uint32_t>(c);
}

bool isDigit(char c) {
  return c >= '0' && c <= '9';
}

PXComparisonResult order(auto a, auto b) {
  return a < b ? PXOrderedAscending : (b < a ? PXOrderedDescending : PXOrderedSame);
}

// Compares two forms code point by code point in UTF-16 order, runs of digits
// by value when `numeric`.
PXComparisonResult compareForms(std::string_view a, std::string_view b, bool numeric) {
  size_t i = 0, j = 0;
  while (i < a.size() && j < b.size()) {
    if (numeric && isDigit(a[i]) && isDigit(b[j])) {
      size_t ie = i, je = j;
      while (ie < a.size() && isDigit(a[ie])) ++ie;
      while (je < b.size() && isDigit(b[je])) ++je;
      std::string_view x = a.substr(i, ie - i), y = b.substr(j, je - j);
      x.remove_prefix(std::min(x.find_first_not_of('0'), x.size()));
      y.remove_prefix(std::min(y.find_first_not_of('0'), y.size()));
      if (x.size() != y.size()) return order(x.size(), y.size());
      if (PXComparisonResult r = order(x, y); r != PXOrderedSame) return r;
      i = ie, j = je;
      continue;
    }
    if (a[i] == b[j] && static_cast<unsigned char>(a[i]) < 0x80) {
      ++i, ++j;
      continue;
    }
    const UChar32 x = nextCodePoint(a, i);
    const UChar32 y = nextCodePoint(b, j);
    if (x != y) return order(utf16Rank(x), utf16Rank(y));
  }
  return order(a.size() - i == 0 ? 0 : 1, b.size() - j == 0 ? 0 : 1);
}

// A version component's integer value: leading white space, an optional
// sign, then digits; saturating at the range of a 32-bit int.
long long integerValue(std::string_view text) {
  size_t i = 0;
  while (i < text.size() && std::isspace(static_cast<unsigned char>(text[i]))) ++i;
  bool negative = false;
  if (i < text.size() && (text[i] == '+' || text[i] == '-')) negative = text[i++] == '-';
  long long value = 0;
  for (; i < text.size() && isDigit(text[i]); ++i) {
    value = value * 10 + (text[i] - '0');
    if (value > static_cast<long long>(INT_MAX) + 1) break;
  }
  value = negative ? -value : value;
  return std::clamp<long long>(value, INT_MIN, INT_MAX);
}

std::vector<std::string_view> split(std::string_view text, std::string_view separator) {
  std::vector<std::string_view> parts;
  if (separator.empty()) return {text};
  for (size_t from = 0;;) {
    const size_t at = text.find(separator, from);
    if (at == std::string_view::npos) {
      parts.push_back(text.substr(from));
      return parts;
    }
    parts.push_back(text.substr(from, at - from));
    from = at + separator.size();
  }
}

// What a leftover component (and the one after it) says: greater, or the same.
bool leftoverIsGreater(const std::vector<std::string_view>& parts, size_t at) {
  if (parts[at] != "0") return true;
  return at + 1 < parts.size() && !parts[at + 1].empty();
}

}  // namespace

// ---- Comparison and search ------------------------------------------------

std::string PXStringFold(std::string_view text, unsigned options) {
  if (!(options & kFoldingOptions)) return std::string(text);
  std::string out;
  foldInto(text, options, out, nullptr);
  return out;
}

std::string PXStringFoldCase(std::string_view text) {
  return recomposed(PXStringFold(text, PXCaseInsensitiveSearch | PXLiteralSearch));
}

std::string PXStringRemoveDiacritics(std::string_view text) {
  return recomposed(PXStringFold(text, PXDiacriticInsensitiveSearch));
}

PXComparisonResult PXStringCompare(std::string_view a, std::string_view b, unsigned options) {
  const bool numeric = (options & PXNumericSearch) != 0;
  if (!(options & kFoldingOptions)) return compareForms(a, b, numeric);
  return compareForms(PXStringFold(a, options), PXStringFold(b, options), numeric);
}

bool PXStringEqual(std::string_view a, std::string_view b, unsigned options) {
  if (options & PXNumericSearch) return PXStringCompare(a, b, options) == PXOrderedSame;
  if (!(options & kFoldingOptions)) return a == b;
  return PXStringFold(a, options) == PXStringFold(b, options);
}

PXRange PXStringFind(std::string_view haystack, std::string_view needle, unsigned options, PXRange within) {
  const size_t base = std::min(within.location, haystack.size());
  const std::string_view text = haystack.substr(base, std::min(within.length, haystack.size() - base));
  if (needle.empty() || text.empty()) return {};
  const bool backwards = (options & PXBackwardsSearch) != 0;
  const bool anchored = (options & PXAnchoredSearch) != 0;
  auto locate = [&](std::string_view in, std::string_view what) -> size_t {
    if (what.size() > in.size()) return std::string_view::npos;
    if (anchored) {
      const size_t at = backwards ? in.size() - what.size() : 0;
      return in.compare(at, what.size(), what) == 0 ? at : std::string_view::npos;
    }
    return backwards ? in.rfind(what) : in.find(what);
  };
  if (!(options & kFoldingOptions)) {
    const size_t at = locate(text, needle);
    return at == std::string_view::npos ? PXRange{} : PXRange{base + at, needle.size()};
  }
  std::string form;
  std::vector<SourceSpan> spans;
  foldInto(text, options, form, &spans);
  const std::string what = PXStringFold(needle, options);
  if (what.empty()) return {};
  // A match must not end between a letter and its combining marks: "cafe" is
  // not in "café" just because [c] decomposed it.
  auto endsOnBoundary = [&](size_t at) {
    size_t after = at + what.size();
    if (after >= form.size()) return true;
    const UChar32 next = nextCodePoint(form, after);
    return u_getCombiningClass(next) == 0 && u_charType(next) != U_NON_SPACING_MARK;
  };
  size_t at = std::string_view::npos;
  if (anchored) {
    at = locate(form, what);
    if (at != std::string_view::npos && !endsOnBoundary(at)) at = std::string_view::npos;
  } else if (backwards) {
    for (size_t from = form.size(); from > 0;) {
      at = std::string_view(form).rfind(what, from - 1);
      if (at == std::string_view::npos || endsOnBoundary(at)) break;
      from = at;
      at = std::string_view::npos;
    }
  } else {
    for (size_t from = 0;;) {
      at = std::string_view(form).find(what, from);
      if (at == std::string_view::npos || endsOnBoundary(at)) break;
      from = at + 1;
    }
  }
  if (at == std::string_view::npos) return {};
  const size_t start = spans[at].start;
  size_t end = spans[at + what.size() - 1].end;
  // Characters that fold to nothing (marks dropped) right after the match belong to it.
  const size_t next = at + what.size() < spans.size() ? spans[at + what.size()].start : text.size();
  end = std::max(end, next);
  return {base + start, end - start};
}

PXComparisonResult PXStringCollate(std::string_view a, std::string_view b) {
  // One collator per thread: made once, then only read.
  thread_local std::unique_ptr<icu::Collator> collator = [] {
    UErrorCode status = U_ZERO_ERROR;
    std::unique_ptr<icu::Collator> c(icu::Collator::createInstance(icu::Locale::getRoot(), status));
    if (U_FAILURE(status) || !c) return std::unique_ptr<icu::Collator>();
    c->setStrength(icu::Collator::SECONDARY);  // case and width are tertiary: ignored
    c->setAttribute(UCOL_NUMERIC_COLLATION, UCOL_ON, status);
    c->setAttribute(UCOL_NORMALIZATION_MODE, UCOL_ON, status);
    c->setAttribute(UCOL_ALTERNATE_HANDLING, UCOL_NON_IGNORABLE, status);  // punctuation counts
    return U_SUCCESS(status) ? std::move(c) : std::unique_ptr<icu::Collator>();
  }();
  if (!collator) return PXOrderedSame;
  UErrorCode status = U_ZERO_ERROR;
  const UCollationResult r = collator->compareUTF8(
      icu::StringPiece(a.data(), static_cast<int32_t>(std::min<size_t>(a.size(), INT32_MAX))),
      icu::StringPiece(b.data(), static_cast<int32_t>(std::min<size_t>(b.size(), INT32_MAX))), status);
  if (U_FAILURE(status)) return PXOrderedSame;
  return static_cast<PXComparisonResult>(r);
}

// ---- Versions -------------------------------------------------------------

PXComparisonResult PXCompareVersions(std::string_view receiver, std::string_view other,
                                     std::string_view separator) {
  const std::vector<std::string_view> a = split(receiver, separator);
  const std::vector<std::string_view> b = split(other, separator);
  const bool bySpace = separator == " ";
  size_t i = 0;
  for (; i < a.size() && i < b.size(); ++i) {
    if (a[i] == b[i]) continue;
    if (bySpace) return integerValue(a[i]) > integerValue(b[i]) ? PXOrderedDescending : PXOrderedAscending;
    return PXCompareVersions(a[i], b[i], " ");
  }
  if (i < a.size()) return leftoverIsGreater(a, i) ? PXOrderedDescending : PXOrderedSame;
  if (i < b.size()) return leftoverIsGreater(b, i) ? PXOrderedAscending : PXOrderedSame;
  return PXOrderedSame;
}

int PXCompareReleaseVersions(std::string_view a, std::string_view b) {
  size_t i = 0, j = 0;
  auto separator = [](char c) { return !std::isalnum(static_cast<unsigned char>(c)) && c != '~'; };
  auto digit = [](char c) { return std::isdigit(static_cast<unsigned char>(c)) != 0; };
  auto alpha = [](char c) { return std::isalpha(static_cast<unsigned char>(c)) != 0; };
  while (i < a.size() || j < b.size()) {
    while (i < a.size() && separator(a[i])) ++i;
    while (j < b.size() && separator(b[j])) ++j;
    // "~" marks a pre-release: it sorts before anything, even the end.
    const bool tildeA = i < a.size() && a[i] == '~';
    const bool tildeB = j < b.size() && b[j] == '~';
    if (tildeA || tildeB) {
      if (!tildeA) return 1;
      if (!tildeB) return -1;
      ++i, ++j;
      continue;
    }
    if (i >= a.size() || j >= b.size()) break;
    const bool numeric = digit(a[i]);
    auto run = [&](std::string_view s, size_t& k) {
      const size_t start = k;
      while (k < s.size() && (numeric ? digit(s[k]) : alpha(s[k]))) ++k;
      return s.substr(start, k - start);
    };
    std::string_view x = run(a, i);
    std::string_view y = run(b, j);
    if (y.empty()) return numeric ? 1 : -1;  // a number is newer than letters
    if (numeric) {
      x.remove_prefix(std::min(x.find_first_not_of('0'), x.size()));
      y.remove_prefix(std::min(y.find_first_not_of('0'), y.size()));
      if (x.size() != y.size()) return x.size() < y.size() ? -1 : 1;
    }
    if (const int cmp = x.compare(y); cmp != 0) return cmp < 0 ? -1 : 1;
  }
  const bool moreA = i < a.size();
  const bool moreB = j < b.size();
  return moreA == moreB ? 0 : (moreA ? 1 : -1);
}
