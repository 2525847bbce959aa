#include <gtest/gtest.h>
#include <pxkit/platform/PXStringComparison.h>

#include <string>

namespace {

constexpr unsigned C = PXCaseInsensitiveSearch;
constexpr unsigned D = PXDiacriticInsensitiveSearch;
constexpr unsigned CD = C | D;

TEST(PXStringComparison, EqualityUnderCaseAndDiacriticOptions) {
  struct Row {
    const char* a;
    const char* b;
    bool plain, c, d, cd;  // equal with no options, [c], [d], [cd]
  } rows[] = {
      {"café", "cafe", false, false, true, true},       {"CAFÉ", "cafe", false, false, false, true},
      {"Straße", "STRASSE", false, true, false, true},   // full case folding
      {"ΣΊΣΥΦΟΣ", "σίσυφος", false, true, false, true},  // final sigma folds like sigma
      {"e\u0301", "\u00e9", false, true, true, true},    // canonically equivalent once options apply
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(std::string(row.a) + " / " + row.b);
    EXPECT_EQ(PXStringEqual(row.a, row.b), row.plain);
    EXPECT_EQ(PXStringEqual(row.a, row.b, C), row.c);
    EXPECT_EQ(PXStringEqual(row.a, row.b, D), row.d);
    EXPECT_EQ(PXStringEqual(row.b, row.a, CD), row.cd);
    EXPECT_EQ(PXStringCompare(row.a, row.b, CD) == PXOrderedSame, row.cd);
    EXPECT_EQ(PXStringFold(row.a, CD) == PXStringFold(row.b, CD), row.cd);
  }
}

TEST(PXStringComparison, OrderIsUtf16CodeUnitsAndOptionsAct) {
  struct Row {
    const char* a;
    const char* b;
    unsigned options;
    PXComparisonResult expected;
  } rows[] = {
      {"10.10", "10.6", 0, PXOrderedAscending},  // text, not numbers
      {"a.2", "a.10", PXNumericSearch, PXOrderedAscending},
      {"x12y", "x13y", PXNumericSearch, PXOrderedAscending},
      {"x2", "xy", PXNumericSearch, PXOrderedAscending},
      {"a010", "a10", PXNumericSearch, PXOrderedSame},
      {"a10", "a10", PXNumericSearch | C, PXOrderedSame},
      {"B", "a", C, PXOrderedDescending},
      {"é", "f", 0, PXOrderedDescending},
      {"é", "f", D, PXOrderedAscending},
      // U+FF5E sorts after U+1F600 in code points, before it in UTF-16 units.
      {"\uff5e", "\U0001f600", 0, PXOrderedDescending},
      {"\xff", "\xef\xbf\xbd", 0, PXOrderedSame},  // an ill-formed byte reads as U+FFFD
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(std::string(row.a) + " / " + row.b);
    EXPECT_EQ(PXStringCompare(row.a, row.b, row.options), row.expected);
    EXPECT_EQ(PXStringCompare(row.b, row.a, row.options), -row.expected);
    // With no options, equality is of the bytes: the ill-formed byte is not U+FFFD there.
    EXPECT_EQ(PXStringEqual(row.a, row.b, row.options), row.expected == PXOrderedSame && row.options != 0);
  }
}

TEST(PXStringComparison, FindMapsMatchesBackToTheOriginalText) {
  struct Row {
    const char* haystack;
    const char* needle;
    unsigned options;
    PXRange within;
    PXRange expected;
  } rows[] = {
      {"a.b.c", ".", PXBackwardsSearch, {0, 99}, {3, 1}},
      {"a.b.c", ".", 0, {2, 3}, {3, 1}},
      {"a.b.c", "b", PXAnchoredSearch, {0, 99}, {}},
      {"a.b.c", "c", PXAnchoredSearch | PXBackwardsSearch, {0, 99}, {4, 1}},
      {"Un Café Noir", "CAFE", CD, {0, 99}, {3, 5}},  // "Café" is five bytes
      {"Un Café Noir", "CAFE", C, {0, 99}, {}},
      {"Größe", "SS", C, {0, 99}, {4, 2}},     // inside what "ß" folds to: the whole "ß"
      {"xe\u0301y", "é", D, {0, 99}, {1, 3}},  // the dropped mark belongs to the match
      {"e e\u0301", "E", C | PXBackwardsSearch, {0, 99}, {0, 1}},  // not half of "é"
      {"e\u0301x", "E", C | PXAnchoredSearch, {0, 99}, {}},
      {"abc", "", 0, {0, 99}, {}},
      {"e\u0301", "\u0301", D, {0, 99}, {}},  // a needle that folds to nothing
      {"abc", "B", C | PXAnchoredSearch, {0, 99}, {}},
      {"abc", "X", C | PXBackwardsSearch, {0, 99}, {}},
      {"\u0301", "x", D | PXBackwardsSearch, {0, 99}, {}},
      {"e\u034f", "E", C, {0, 99}, {}},  // followed by a mark of combining class 0
      {"abc", "c", 0, {7, 2}, {}},       // a range past the end is clipped to nothing
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(std::string(row.haystack) + " / " + row.needle);
    EXPECT_EQ(PXStringFind(row.haystack, row.needle, row.options, row.within), row.expected);
  }
}

TEST(PXStringComparison, FoldingShorthandsRecomposeAndCollationOrdersNames) {
  EXPECT_EQ(PXStringFoldCase("Straße ÉTÉ"), "strasse été");
  EXPECT_EQ(PXStringRemoveDiacritics("Crème Brûlée, Ångström"), "Creme Brulee, Angstrom");
  EXPECT_EQ(PXStringFold("AbC", 0), "AbC");
  EXPECT_EQ(PXStringCollate("File 2", "file 10"), PXOrderedAscending);
  EXPECT_EQ(PXStringCollate("abc", "ABC"), PXOrderedSame);
  EXPECT_EQ(PXStringCollate("a-b", "ab"), PXOrderedAscending);  // punctuation counts, before letters
  EXPECT_EQ(PXStringCollate("b", "a"), PXOrderedDescending);
}

TEST(PXStringComparison, VersionOrderingKeepsItsQuirks) {
  struct Row {
    const char* a;
    const char* b;
    const char* separator;
    PXComparisonResult expected;
    bool opposite;  // compare(b, a) is the opposite; otherwise the same
  } rows[] = {
      {"10.6", "10.6.0", ".", PXOrderedSame, true},
      {"10.6", "10.6.0.0", ".", PXOrderedAscending, true},  // only one component past the end
      {"1.0.", "1", ".", PXOrderedSame, true},              // "0" then an empty component
      {"2.0 beta", "2.0 rc", ".", PXOrderedAscending, false},
      {"01", "1", " ", PXOrderedAscending, false},
      {"-3", "+2", " ", PXOrderedAscending, true},
      {"\t3", "2", " ", PXOrderedDescending, true},
      {"1 ", "1 x", " ", PXOrderedAscending, false},
      {"1-2", "1-10", "-", PXOrderedAscending, true},
      {"99999999999", "2", ".", PXOrderedDescending, true},  // saturates, still greater
      {"abc", "abd", "", PXOrderedAscending, false},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(std::string(row.a) + " / " + row.b + " by '" + row.separator + "'");
    EXPECT_EQ(PXCompareVersions(row.a, row.b, row.separator), row.expected);
    EXPECT_EQ(PXCompareVersions(row.b, row.a, row.separator), row.opposite ? -row.expected : row.expected);
  }
}

}  // namespace
