#include <gtest/gtest.h>
#include <pxkit/foundation/PXStringTools.h>

#include <cstdlib>
#include <memory>
#include <regex>
#include <string>
#include <tuple>
#include <utility>

namespace {

using namespace PXStringTools;

// "(absent)" for the absent string, else its text: one column type for tables.
std::string text(const PXString& s) {
  return s ? s.str() : "(absent)";
}

TEST(PXStringTools, MakesStrings) {
  const PXString id = uuid();
  EXPECT_TRUE(std::regex_match(id.str(), std::regex("[0-9A-F]{8}(-[0-9A-F]{4}){3}-[0-9A-F]{12}")))
      << id.str();
  EXPECT_NE(uuid(), id);
  EXPECT_EQ(text(stringWithUniCodeChar(0x20AC)), "€");
  EXPECT_EQ(text(stringWithUniCodeChar(0xD83D)), "\uFFFD");  // half a pair is no character
  const uint8_t bytes[] = {0x00, 0xAB};
  EXPECT_EQ(text(stringWithHexValuesForData(PXData::dataWithBytes(bytes, 2).get())), "00ab");
  EXPECT_EQ(text(stringWithHexValuesForData(nullptr)), "(absent)");
}

TEST(PXStringTools, CutsAtDotsAndFindsTheNthOccurrenceWithItsQuirks) {
  for (auto [self, parent, reverse] : {std::tuple{"org.example.app", "org", "org.example"},
                                       {"nodot", "(absent)", "(absent)"},
                                       {".start", "", ""}}) {
    EXPECT_EQ(text(domainParent(self)), parent);                  // up to the first dot
    EXPECT_EQ(text(reverseDomainParent(self)), reverse) << self;  // up to the last dot
  }
  struct Row {
    const char* self;
    const char* needle;
    unsigned options;
    size_t n;
    PXRange expected;
  } rows[] = {
      {"a.b.c", ".", 0, 2, {3, 1}},
      {"a.b.c", ".", 0, 0, {}},
      {"a.b.c", ".", PXBackwardsSearch, 2, {1, 1}},
      {"a..b", ".", PXBackwardsSearch, 2, {}},  // the dot right before is skipped
      {"a.", ".", 0, 2, {}},                    // the previous end is the end of the text
      {"xAxaxA", "a", PXCaseInsensitiveSearch, 3, {5, 1}},
      {"aaaa", "aa", 0, 2, {2, 2}},  // occurrences do not overlap
  };
  for (const Row& row : rows) {
    const PXRange got = rangeOfString(row.self, row.needle, row.options, {3, 1}, row.n);  // range: ignored
    EXPECT_EQ(std::pair(got.location, got.length), std::pair(row.expected.location, row.expected.length))
        << row.self << " #" << row.n;
  }
  // A substring runs from the range to the occurrence.
  EXPECT_EQ(text(subStringToOccurenceOf("a.b.c", ".", 0, {2, 3}, 2)), "b");
  EXPECT_EQ(text(subStringToOccurenceOf("a.b.c", ".", PXBackwardsSearch, {0, 5}, 1)), "a.b");
  EXPECT_EQ(text(subStringToOccurenceOf("a.b.c", ".", 0, {2, 3}, 1)),
            "(absent)");  // it starts before the range
}

TEST(PXStringTools, CleansText) {
  struct Row {
    PXString (*clean)(std::string_view);
    std::string self;
    const char* expected;
  } rows[] = {
      {stripNonChar, "a-b_c 9!", "abc9"},
      {stripNonChar, "Ünïcödé-ǅ 0\xff", "Ünïcödéǅ0"},  // ill-formed bytes are no letters
      {stripNonChar, "中文-_!", ""},                   // letters without case go too
      {quoteQuotes, "a\"b\"", "a\\\"b\\\""},
      {stringWithRemovedWhitespace, " a b\tc\r\n", "abc"},
      {stringWithRemovedWhitespace, "\f a\u00a0b\xff \v",
       "a\u00a0b\xff"},  // other white space only at the ends
      {stringWithAddedPercentEscapes, "http://host/a b?q=1&r=é#Frag", "http://host/a%20b?q=1&r=%C3%A9#Frag"},
      {stringWithAddedPercentEscapes, std::string("100%\0", 5), "100%25%00"},
      {stringWithAddedPercentEscapes, "a\"<>\\^`{|}", "a%22%3C%3E%5C%5E%60%7B%7C%7D"},
      {stringWithAddedPercentEscapes, "-._~:/?#[]@!$&'()*+,;=", "-._~:/?#[]@!$&'()*+,;="},
  };
  for (const Row& row : rows) EXPECT_EQ(text(row.clean(row.self)), row.expected) << row.self;
  auto digits = [](char32_t c) { return c >= U'0' && c <= U'9'; };
  EXPECT_EQ(text(stringWithAllCharactersStrippedNotInCharacterSet("v1.2-é3\xff", digits)), "123");
  EXPECT_EQ(text(stringWithAllCharactersStrippedNotInCharacterSet("abc", nullptr)), "");
}

TEST(PXStringTools, ReplacesEveryOccurrenceWithOptions) {
  struct Row {
    const char* self;
    PXString target;
    PXString replacement;
    unsigned options;
    const char* expected;
  } rows[] = {
      {"a.b.c", ".", "::", 0, "a::b::c"},
      {"Café CAFE cafe", "cafe", "tea", PXCaseInsensitiveSearch | PXDiacriticInsensitiveSearch,
       "tea tea tea"},
      {"aaa", "aa", "b", PXBackwardsSearch, "ab"},
      {"abab", "ab", "x", PXAnchoredSearch, "xab"},
      {"abab", "ab", "x", PXAnchoredSearch | PXBackwardsSearch, "abx"},
      {"abc", PXString(), "x", 0, "abc"},
      {"abc", "b", PXString(), 0, "abc"},
      {"abc", "", "x", 0, "abc"},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(text(stringByReplacingString(row.self, row.target, row.replacement, row.options)), row.expected)
        << row.self << " / " << text(row.target);
  }
}

TEST(PXStringTools, SearchesComparesAndCopiesUnits) {
  EXPECT_TRUE(containsString("version", "ers"));
  EXPECT_FALSE(containsString("version", ""));
  std::unique_ptr<char16_t, decltype(&std::free)> units(uniCharRepresentation("aé😀\xff"), &std::free);
  ASSERT_TRUE(units);
  const char16_t expected[] = {u'a', u'\u00e9', 0xD83D, 0xDE00, 0xFFFD};
  for (size_t i = 0; i < 5; ++i) EXPECT_EQ(units.get()[i], expected[i]) << i;
  EXPECT_EQ(reinterpret_cast<const unsigned char*>(units.get())[10], 0u);  // the zero byte past the units
  EXPECT_EQ(uniCharRepresentation(""), nullptr);
  // The orderings are PXStringComparison's: here, "." by default, an absent other, the separator passed on.
  EXPECT_EQ(compareVersionTo("10.6.8", "10.10"), PXOrderedAscending);
  EXPECT_EQ(compareVersionTo("1-10", "1-9", "-"), PXOrderedDescending);
  EXPECT_EQ(compareLikeFinder("File 9", "file 10"), PXOrderedAscending);
}

}  // namespace
