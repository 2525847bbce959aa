// PXKit — string tools: making, cutting, cleaning, searching and comparing text.
//
// PXStringTools groups the kit's helper operations on strings. The receiver
// (`self`) comes first; it is UTF-8 text, and every range is a byte range into
// it (PXRange, kPXNotFound when nothing was found):
//   - uuid, stringWithUniCodeChar, stringWithHexValuesForData make strings;
//   - domainParent, reverseDomainParent, subStringToOccurenceOf cut them;
//   - stripNonChar, stringWithAllCharactersStrippedNotInCharacterSet,
//     quoteQuotes, stringWithRemovedWhitespace, stringByReplacingString,
//     stringWithAddedPercentEscapes clean them;
//   - rangeOfString finds the n-th occurrence, containsString any;
//   - compareVersionTo orders version strings the way rules do, and
//     compareLikeFinder orders names the way people expect a list of files.
// The names rangeOfString:options:range:occurence:, subStringToOccurenceOf:…
// and compareVersionTo:withSeperator: keep their spelling on purpose: they
// are the names hosts know.
//
//   PXString parent = PXStringTools::domainParent("org.example.app");           // "org"
//   PXRange second = PXStringTools::rangeOfString("a.b.c", ".", 0, {0, 5}, 2);  // {3, 1}
//   PXStringTools::compareVersionTo("10.6.8", "10.10");                         // PXOrderedAscending
//
// Thread safety: every operation may be called from any thread.
#pragma once

#include <pxkit/export.h>
#include <pxkit/objects/PXData.h>
#include <pxkit/objects/PXString.h>
#include <pxkit/platform/PXStringComparison.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string_view>

namespace PXStringTools {

// ---- Making strings ---------------------------------------------------------

// A new random UUID as canonical text: 36 characters, upper-case hexadecimal
// digits in 8-4-4-4-12 groups with hyphens. Absent if none could be made.
PXKIT_EXPORT PXString uuid();

// The one character whose UTF-16 code unit is `character` (read high byte
// first). A lone surrogate half is no character and cannot be UTF-8: it gives
// U+FFFD, the replacement character.
PXKIT_EXPORT PXString stringWithUniCodeChar(uint16_t character);

// Lower-case hexadecimal, two digits per byte, no separators: 0x00 0xAB gives
// "00ab". Empty data gives ""; null data gives the absent string.
PXKIT_EXPORT PXString stringWithHexValuesForData(const PXData* data);

// ---- Cutting ----------------------------------------------------------------

// `self` up to its last "." ("a.b.c" gives "a.b"); absent without a ".".
PXKIT_EXPORT PXString reverseDomainParent(std::string_view self);
// `self` up to its FIRST "." ("a.b.c" gives "a"); absent without a ".". Kept on
// purpose: it works from the front although the name suggests otherwise.
PXKIT_EXPORT PXString domainParent(std::string_view self);

// The text from `range.location` up to the start of the `occurence`-th
// occurrence of `needle` that rangeOfString finds. Absent when there is no such
// occurrence, when `range.location` is past the end, or when the occurrence
// starts before `range.location`.
PXKIT_EXPORT PXString subStringToOccurenceOf(std::string_view self, std::string_view needle, unsigned options,
                                             PXRange range, size_t occurence);

// ---- Cleaning ---------------------------------------------------------------

// `self` keeping only cased letters (upper, title or lower case, any script)
// and the digits 0-9: "a-b_c 9!" gives "abc9". Nothing kept gives "".
PXKIT_EXPORT PXString stripNonChar(std::string_view self);
// `self` keeping only the characters for which `isMember` answers true, in
// order. Nothing kept gives "" (never absent). `isMember` is called once per
// character, on this thread.
PXKIT_EXPORT PXString stringWithAllCharactersStrippedNotInCharacterSet(
    std::string_view self, const std::function<bool(char32_t)>& isMember);
// `self` with every double quote preceded by a backslash: a"b gives a\"b.
PXKIT_EXPORT PXString quoteQuotes(std::string_view self);
// `self` without any " ", "\t", "\n" or "\r", then trimmed of any other white
// space at both ends: " a b\tc\r\n" gives "abc".
PXKIT_EXPORT PXString stringWithRemovedWhitespace(std::string_view self);
// `self` with every occurrence of `target` replaced by `replacement`, found
// with `options` (PXStringCompareOptions) over the whole text; with
// PXBackwardsSearch the occurrences are taken from the end, with
// PXAnchoredSearch only the one at the start (end). An absent or empty target,
// or an absent replacement, leaves the text as it is.
PXKIT_EXPORT PXString stringByReplacingString(std::string_view self, const PXString& target,
                                              const PXString& replacement, unsigned options);
// `self` percent-escaped (UTF-8 bytes as "%XX", upper-case hexadecimal) where a
// character may not stand in a URL: everything except letters, digits and
// - . _ ~ : / ? # [ ] @ ! $ & ' ( ) * + , ; =  ("%" itself is escaped).
PXKIT_EXPORT PXString stringWithAddedPercentEscapes(std::string_view self);

// ---- Searching --------------------------------------------------------------

// The range of the `occurence`-th occurrence of `needle` (PXStringFind with
// `options`). The first search always covers all of `self`: `range` does not
// limit it (subStringToOccurenceOf uses it as the start of its text). Each
// further search starts after the previous occurrence, or, with
// PXBackwardsSearch, covers [0, previous location - 1): kept on purpose, so a
// one-character needle right before the previous occurrence is skipped (the
// second "." from the end of "a..b" is not found). Occurrence 0, or a search
// that finds nothing, gives {kPXNotFound, 0}.
PXKIT_EXPORT PXRange rangeOfString(std::string_view self, std::string_view needle, unsigned options,
                                   PXRange range, size_t occurence);
// Whether `other` occurs in `self` (literal, case-sensitive). An empty `other`
// does not occur.
PXKIT_EXPORT bool containsString(std::string_view self, std::string_view other);

// A malloc'ed, zero-filled buffer of 2 × (UTF-16 length) + 1 bytes holding
// `self` as UTF-16 code units; the caller frees it with std::free. Null for an
// empty `self` or when memory runs out.
PXKIT_EXPORT char16_t* uniCharRepresentation(std::string_view self);

// ---- Comparing --------------------------------------------------------------

// compareVersionTo(self, other, withSeperator) with ".".
PXKIT_EXPORT PXComparisonResult compareVersionTo(std::string_view self, const PXString& other);
// The rules' version ordering (PXCompareVersions): "10.6.8" < "10.10",
// "1.0" == "1", "1.0.0" > "1". An absent `other` gives PXOrderedSame.
PXKIT_EXPORT PXComparisonResult compareVersionTo(std::string_view self, const PXString& other,
                                                 std::string_view withSeperator);
// Orders names as a file browser does (PXStringCollate): case and width
// ignored, digits as numbers, punctuation significant.
PXKIT_EXPORT PXComparisonResult compareLikeFinder(std::string_view self, std::string_view other);

}  // namespace PXStringTools
