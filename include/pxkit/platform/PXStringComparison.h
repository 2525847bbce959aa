// PXKit — comparing and searching text with options, and ordering versions.
//
// One place for the kit's text comparisons, so that the string tools, the
// predicate evaluator ([c] and [d] modifiers, LIKE, MATCHES) and the version
// providers agree:
//   - PXStringCompare / PXStringEqual / PXStringFind compare and search UTF-8
//     text, optionally ignoring case (full Unicode case folding: "Straße"
//     equals "STRASSE") and diacritics (canonical decomposition, then every
//     non-spacing mark dropped: "Café" equals "cafe");
//   - PXStringFold gives the comparison form itself, for callers that compare
//     one text against many (fold once, compare bytes);
//   - PXStringCollate orders names as a file browser does (case-insensitive,
//     digits as numbers);
//   - PXCompareVersions is the dotted-version ordering of rules and string
//     tools; PXCompareReleaseVersions orders package release versions.
//
//   PXStringEqual("Résumé", "resume", PXCaseInsensitiveSearch | PXDiacriticInsensitiveSearch);  // true
//   PXRange r = PXStringFind("a.b.c", ".", PXBackwardsSearch);                  // {3, 1}
//   PXCompareVersions("10.6.8", "10.10");                                       // PXOrderedAscending
//
// Text is UTF-8; ranges are byte offsets into it. Ill-formed UTF-8 compares as
// if each bad byte were U+FFFD. Without options, order is that of UTF-16 code
// units (as the platform's strings order), equality is byte equality.
//
// Thread safety: every function may be called from any thread; all are pure.
#pragma once

#include <pxkit/export.h>
#include <pxkit/objects/PXArray.h>
#include <pxkit/objects/PXValue.h>

#include <cstddef>
#include <string>
#include <string_view>

// Options of comparison and search (bit set). The values are the ones hosts
// pass as plain numbers.
enum PXStringCompareOptions : unsigned {
  PXCaseInsensitiveSearch = 1,         // compare full case foldings
  PXLiteralSearch = 2,                 // code unit by code unit: no canonical equivalence
  PXBackwardsSearch = 4,               // search: the last occurrence
  PXAnchoredSearch = 8,                // search: only at the start (at the end, backwards)
  PXNumericSearch = 64,                // compare: runs of ASCII digits by value ("a2" < "a10")
  PXDiacriticInsensitiveSearch = 128,  // drop non-spacing marks after canonical decomposition
};

// A stretch of text: byte offset and length. Not found is {kPXNotFound, 0}.
struct PXRange {
  size_t location = kPXNotFound;
  size_t length = 0;
  bool found() const noexcept { return location != kPXNotFound; }
  size_t end() const noexcept { return location + length; }
  friend bool operator==(const PXRange&, const PXRange&) = default;
};

// ---- Comparison and search ------------------------------------------------

// Orders `a` against `b` under `options` (PXCaseInsensitiveSearch,
// PXDiacriticInsensitiveSearch, PXLiteralSearch, PXNumericSearch; search-only
// options are ignored). With case or diacritic insensitivity, and without
// PXLiteralSearch, canonically equivalent texts (precomposed "é" and "e" with a
// combining acute) are the same. Ascending means `a` sorts first.
PXKIT_EXPORT PXComparisonResult PXStringCompare(std::string_view a, std::string_view b, unsigned options = 0);
// PXStringCompare(a, b, options) == PXOrderedSame, faster.
PXKIT_EXPORT bool PXStringEqual(std::string_view a, std::string_view b, unsigned options = 0);

// The first (PXBackwardsSearch: last) occurrence of `needle` in the part of
// `haystack` that `within` covers (default: all of it; clipped to the text),
// under `options`. The range found covers whole characters of `haystack`: a
// match that begins or ends inside what one character folds to ("ss" in "ß")
// covers that character. An empty needle is never found. Not found:
// {kPXNotFound, 0}.
PXKIT_EXPORT PXRange PXStringFind(std::string_view haystack, std::string_view needle, unsigned options = 0,
                                  PXRange within = {0, static_cast<size_t>(-1)});

// The comparison form of `text` under `options` (only PXCaseInsensitiveSearch
// and PXDiacriticInsensitiveSearch act; without either, the text as it is):
// two texts are equal under the options exactly when their forms are equal
// bytes, and one contains, begins or ends with the other exactly when their
// forms do. The form is UTF-8 in canonical decomposition.
PXKIT_EXPORT std::string PXStringFold(std::string_view text, unsigned options);
// Shorthands: full case folding ("Straße" → "strasse"), and diacritic removal
// with the rest recomposed ("Crème Brûlée" → "Creme Brulee").
PXKIT_EXPORT std::string PXStringFoldCase(std::string_view text);
PXKIT_EXPORT std::string PXStringRemoveDiacritics(std::string_view text);

// Orders two texts as people expect names in a list to be ordered: by the
// root Unicode collation, ignoring case and width, with canonically
// equivalent forms equal, punctuation significant, and runs of digits compared
// as numbers ("File 2" before "file 10"). Same when the collator cannot be
// made (never on a working ICU).
PXKIT_EXPORT PXComparisonResult PXStringCollate(std::string_view a, std::string_view b);

// ---- Versions -------------------------------------------------------------

// Orders two version strings as the rule language and the string tools do
// ("10.6.8" < "10.10"). Both are split at `separator` and walked component by
// component while both have one:
//   - equal texts go on;
//   - when the separator is a single space, the difference is descending when
//     the integer value of the receiver's component (leading white space, an
//     optional sign, then digits; "1a" is 1, "b" is 0) is greater, and
//     ascending otherwise, so "01"/"1" and "1a"/"1b" are ascending both ways
//     (kept on purpose: it is the ordering rules were written against);
//   - with any other separator the two components are compared again with the
//     separator " ", which splits "2.0 beta" into "2" and "beta" pieces.
// When one side has components left, its first leftover decides: not "0", or
// "0" followed by a non-empty component, and that side is the greater; else
// the two are the same. Only one component past the end is looked at (kept:
// "1.0" equals "1", "1.0.0" is greater than "1"). An empty separator splits
// nothing (each text is one component). Absent operands are the caller's to
// handle (the string tools answer same).
PXKIT_EXPORT PXComparisonResult PXCompareVersions(std::string_view receiver, std::string_view other,
                                                  std::string_view separator = ".");

// Orders two release versions as package managers do: runs of digits compare
// as numbers, runs of letters as text, other characters separate, "~" sorts
// before everything (1.0~rc1 < 1.0), a number is newer than letters, and a
// version with more parts is newer. Negative, zero or positive. Used to pick
// the newest release of an installed application.
PXKIT_EXPORT int PXCompareReleaseVersions(std::string_view a, std::string_view b);
