// The property-list file format: exact round trips, the text written, what is
// read, and what is refused.
#include <glib.h>
#include <gtest/gtest.h>
#include <pxkit/objects/PXArray.h>
#include <pxkit/objects/PXDictionary.h>
#include <pxkit/platform/PXPropertyList.h>

#include <bit>
#include <cmath>
#include <limits>
#include <string>
#include <vector>

namespace {

PXValue dict(std::initializer_list<PXDictionary::Entry> entries) {
  return PXValue(PXDictionary::dictionaryWithEntries(entries));
}
PXValue array(std::initializer_list<PXValue> values) {
  return PXValue(PXArray::arrayWithObjects(values));
}
PXValue data(std::string_view bytes) {
  return PXValue(PXData::dataWithString(bytes));
}

PXValue roundTrip(const PXValue& v,
                  PXPropertyListMutability mutability = PXPropertyListMutability::Immutable) {
  PXErrorRef error;
  PXRef<PXData> bytes = PXPropertyList::dataWithPropertyList(v, &error);
  EXPECT_TRUE(bytes) << (error ? error->description().str() : "");
  if (!bytes) return {};
  PXValue back = PXPropertyList::propertyListWithData(*bytes, mutability, &error);
  EXPECT_TRUE(back) << (error ? error->description().str() : "") << "\n" << bytes->view();
  return back;
}

// A value nested `depth` arrays deep around a 1, as a value and as text.
PXValue nestedArrays(size_t depth) {
  PXValue v = 1;
  for (size_t i = 0; i < depth; ++i) v = PXValue(PXArray::arrayWithObjects({v}));
  return v;
}
std::string nestedArrayText(size_t depth) {
  std::string open, close;
  for (size_t i = 0; i < depth; ++i) open += "<array>", close += "</array>";
  return "<plist version=\"1.0\">" + open + "<integer>1</integer>" + close + "</plist>";
}

}  // namespace

TEST(PXPropertyList, ScalarsRoundTripBitForBit) {
  const double inf = std::numeric_limits<double>::infinity();
  const PXValue rows[] = {true,
                          false,
                          0,
                          static_cast<long long>(std::numeric_limits<int64_t>::min()),
                          static_cast<long long>(std::numeric_limits<int64_t>::max()),
                          static_cast<unsigned long long>(std::numeric_limits<uint64_t>::max()),
                          0.1,
                          -0.0,
                          std::numeric_limits<double>::denorm_min(),
                          std::numeric_limits<double>::quiet_NaN(),
                          inf,
                          -inf,
                          PXDate(0),
                          PXDate(-7e10),  // a year before year 1
                          PXDate(-0.3),
                          PXDate::distantPast(),
                          "",
                          "<a href=\"x\">&amp; 'q'</a>",
                          "  two  spaces\tand\nlines\r\nCRLF  ",
                          std::string_view("\x01\x02\x1f\x7f", 4),
                          "Grüße, 世界 🌍",
                          data(std::string_view("\x00\x01\xfe\xff", 4))};
  for (const PXValue& value : rows) {
    SCOPED_TRACE(value.description().str());
    PXValue back = roundTrip(dict({{"v", value}}));
    ASSERT_TRUE(back.isDictionary());
    PXValue v = back.dictionaryValue()->objectForKey("v");
    ASSERT_EQ(v.kind(), value.kind());
    if (value.kind() == PXValue::Kind::Double) {
      EXPECT_EQ(std::bit_cast<uint64_t>(v.doubleValue()), std::bit_cast<uint64_t>(value.doubleValue()));
    } else if (value.kind() == PXValue::Kind::Date) {
      EXPECT_EQ(v.dateValue().timeIntervalSinceReferenceDate(),
                value.dateValue().timeIntervalSinceReferenceDate());
    } else {
      EXPECT_TRUE(v.isEqual(value)) << v.description().str();
    }
  }
  std::string all;  // every byte value survives data
  for (int i = 0; i < 256; ++i) all.push_back(static_cast<char>(i));
  EXPECT_TRUE(roundTrip(data(all)).isEqual(data(all)));
}

TEST(PXPropertyList, ContainersRoundTripInOrderWithTheirMutability) {
  PXValue tree = dict({{"zeta", 1},
                       {"alpha", array({"a", 2, dict({}), array({}), dict({{"deep", array({true, 1.5})}})})},
                       {"middle", data("xyz")},
                       {"", "empty key"}});
  struct Row {
    PXPropertyListMutability mutability;
    bool containers, data;
  } rows[] = {{PXPropertyListMutability::Immutable, false, false},
              {PXPropertyListMutability::MutableContainers, true, false},
              {PXPropertyListMutability::MutableContainersAndLeaves, true, true}};
  for (const Row& row : rows) {
    SCOPED_TRACE(static_cast<int>(row.mutability));
    PXValue v = roundTrip(tree, row.mutability);
    ASSERT_TRUE(v.isEqual(tree)) << v.description().str();
    auto keys = v.dictionaryValue()->allKeys();  // insertion order, not sorted
    EXPECT_EQ(keys->objectAtIndex(0).stringValue(), "zeta");
    EXPECT_EQ(keys->objectAtIndex(1).stringValue(), "alpha");
    EXPECT_EQ(v.objectPointer()->isMutable(), row.containers);
    PXRef<PXArray> alpha = v.dictionaryValue()->objectForKey("alpha").arrayValue();
    EXPECT_EQ(alpha->isMutable(), row.containers);
    EXPECT_EQ(alpha->objectAtIndex(4).dictionaryValue()->objectForKey("deep").objectPointer()->isMutable(),
              row.containers);
    EXPECT_EQ(v.dictionaryValue()->objectForKey("middle").dataValue()->isMutable(), row.data);
  }
}

TEST(PXPropertyList, WritesTheDocumentedText) {
  std::string text = PXPropertyList::XMLStringWithPropertyList(dict({{"PXMetricsDisabled", true},
                                                                     {"Count", -3},
                                                                     {"Ratio", 0.25},
                                                                     {"When", PXDate(0)},
                                                                     {"Blob", data("hi")},
                                                                     {"List", array({"a&b", array({})})}}));
  EXPECT_EQ(text,
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n<dict>\n"
            "\t<key>PXMetricsDisabled</key>\n\t<true/>\n"
            "\t<key>Count</key>\n\t<integer>-3</integer>\n"
            "\t<key>Ratio</key>\n\t<real>0.25</real>\n"
            "\t<key>When</key>\n\t<date>2001-01-01T00:00:00Z</date>\n"
            "\t<key>Blob</key>\n\t<data>aGk=</data>\n"
            "\t<key>List</key>\n\t<array>\n\t\t<string>a&amp;b</string>\n\t\t<array/>\n\t</array>\n"
            "</dict>\n</plist>\n");
}

TEST(PXPropertyList, ReadsWhatOtherWritersProduce) {
  const double inf = std::numeric_limits<double>::infinity();
  struct Row {
    const char* text;
    PXValue expected;
  } rows[] = {
      {"<?xml version=\"1.0\"?>\n<!DOCTYPE plist SYSTEM \"plist.dtd\">\n<!-- c -->\n"
       "<plist version=\"1.0\"><dict><!-- inside --><key>a</key><integer>1</integer></dict></plist>",
       dict({{"a", 1}})},
      {"<array><string>x</string></array>", array({"x"})},
      {"<array><integer>0x1F</integer><integer>0X1f</integer></array>", array({31, 31})},
      {"<integer>+12</integer>", 12},
      {"<dict><key>i</key><integer>\n 7 \n</integer><key>r</key><real> 2.5 </real></dict>",
       dict({{"i", 7}, {"r", 2.5}})},
      {"<real>1e3</real>", 1000.0},
      {"<real>+1.5</real>", 1.5},
      {"<array><real>inf</real><real>-INF</real><real>+infinity</real><real>infinity</real><real>+inf</"
       "real></array>",
       array({inf, -inf, inf, inf, inf})},
      {"<data>\n\taGVs\r\n bG8=\n</data>", data("hello")},
      {"<data>aGk</data>", data("hi")},
      {"<data></data>", data("")},
      {"<string><![CDATA[<raw> & text]]></string>", "<raw> & text"},
      {"<string>&#x41;&#66;&lt;&#x1F30D;</string>", "AB<🌍"},
      {"<string/>", ""},
      {"<dict><key>a</key><array/><key>d</key><dict/></dict>", dict({{"a", array({})}, {"d", dict({})}})},
      {"<dict><key>k</key><integer>1</integer><key>k</key><integer>2</integer></dict>", dict({{"k", 2}})},
      {"<date>2001-01-01T00:00:01.25Z</date>", PXDate(1.25)},
      {"<date>2000-02-29T00:00:00Z</date>", PXDate(-307 * 86400)},  // 2000 is a leap year
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.text);
    PXErrorRef error;
    PXValue v = PXPropertyList::propertyListWithString(row.text, PXPropertyListMutability::Immutable, &error);
    ASSERT_TRUE(v) << (error ? error->description().str() : "");
    EXPECT_TRUE(v.isEqual(row.expected)) << v.description().str();
  }
}

TEST(PXPropertyList, RefusesMalformedTextWithAnError) {
  const char* rows[] = {"",
                        "not xml at all",
                        "<plist>",
                        "<plist version=\"1.0\"></plist>",
                        "<plist><integer>1</integer><integer>2</integer></plist>",
                        "<dict><key>a</key></dict>",
                        "<dict><integer>1</integer></dict>",
                        "<dict>text<key>a</key><integer>1</integer></dict>",
                        "<array><key>a</key></array>",
                        "<array><plist/></array>",
                        "<string><integer>1</integer></string>",
                        "<unknown/>",
                        "<integer></integer>",
                        "<integer>12a</integer>",
                        "<integer>1.5</integer>",
                        "<integer>18446744073709551616</integer>",
                        "<integer>-9223372036854775809</integer>",
                        "<real></real>",
                        "<real>1.5.5</real>",
                        "<real>+</real>",
                        "<real>++1</real>",
                        "<data>!!!!</data>",
                        "<data>a</data>",
                        "<data>aGk=aGk=</data>",
                        "<data>a===</data>",
                        "<date>2001-02-29T00:00:00Z</date>",
                        "<date>1900-02-29T00:00:00Z</date>",
                        "<date>2001-00-01T00:00:00Z</date>",
                        "<date>2001-01-00T00:00:00Z</date>",
                        "<date>2001-01-01T00:00:60Z</date>",
                        "<date>2001-01-01T00:00:00.1234567890123456789012345678901Z</date>",
                        "<date>12345678-01-01T00:00:00Z</date>",
                        "<date>9999999-01-01T00:00:00Z</date>",
                        "<date>2001-13-01T00:00:00Z</date>",
                        "<date>2001-01-01T24:00:00Z</date>",
                        "<date>2001-01-01T00:60:00Z</date>",
                        "<date>2001-01-01T00:00:00</date>",
                        "<date>2001-01-01T00:00:00+01:00</date>",
                        "<date>01-01-01T00:00:00Z</date>",
                        "<date>2001-01-01T00:00:00.Z</date>",
                        "<true>x</true>",
                        "<string>unterminated",
                        "<string>bad &entity; here</string>",
                        "<string>\xff\xfe invalid UTF-8</string>",
                        "<array></dict>"};
  for (const char* text : rows) {
    SCOPED_TRACE(text);
    PXErrorRef error;
    PXValue v = PXPropertyList::propertyListWithString(text, PXPropertyListMutability::Immutable, &error);
    EXPECT_FALSE(v) << v.description().str();
    ASSERT_TRUE(error);
    EXPECT_EQ(error->domain(), kPXPropertyListErrorDomain);
    EXPECT_EQ(error->code(), PXPropertyListReadCorruptError);
  }
}

TEST(PXPropertyList, NestingLimitHoldsAtTheBoundary) {
  for (size_t depth : {kPXPropertyListMaxDepth, kPXPropertyListMaxDepth + 1}) {
    SCOPED_TRACE(depth);
    bool allowed = depth <= kPXPropertyListMaxDepth;
    PXErrorRef error;
    EXPECT_EQ(!PXPropertyList::XMLStringWithPropertyList(nestedArrays(depth), &error).empty(), allowed);
    PXValue read = PXPropertyList::propertyListWithString(nestedArrayText(depth),
                                                          PXPropertyListMutability::Immutable, &error);
    EXPECT_EQ(static_cast<bool>(read), allowed);
    if (!allowed) {
      EXPECT_EQ(error->code(), PXPropertyListReadTooLargeError);
    }
  }
  // Far past the limit: refused, not a stack overflow.
  std::string deep;
  for (int i = 0; i < 100000; ++i) deep += "<array>";
  EXPECT_FALSE(PXPropertyList::propertyListWithString(deep));
}

TEST(PXPropertyList, WriterRefusesWhatIsNotAPropertyList) {
  auto cycle = PXMutableArray::array();
  cycle->addObject(PXValue(cycle));
  const PXValue rows[] = {PXValue(),
                          PXValue::null(),
                          PXValue(PXError::errorWithDomain("D", 1)),
                          PXValue(PXDictionary::dictionaryWithEntries({{1, "one"}})),
                          std::string_view("a\0b", 3),
                          std::string_view("\xc3\x28", 2),
                          PXDate(std::numeric_limits<double>::quiet_NaN()),
                          PXDate(1e300),
                          PXValue(cycle)};
  for (const PXValue& value : rows) {
    SCOPED_TRACE(&value - rows);
    PXErrorRef error;
    EXPECT_FALSE(PXPropertyList::dataWithPropertyList(value, &error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code(), PXPropertyListWriteInvalidError);
    EXPECT_FALSE(PXPropertyList::isValidPropertyList(value));
  }
  cycle->removeAllObjects();  // break the cycle so the array can go
}

TEST(PXPropertyList, SurvivesMutatedDocuments) {
  // Random damage to a real document: every result is a value or an error.
  std::string text = PXPropertyList::XMLStringWithPropertyList(
      dict({{"a", array({1, 2.5, "x&y", data("zz"), PXDate(3.25), true})}, {"b", dict({{"c", -1}})}}));
  GRand* rand = g_rand_new_with_seed(42);
  int errors = 0;
  for (int i = 0; i < 3000; ++i) {
    std::string mutated = text;
    for (int e = g_rand_int_range(rand, 1, 6); e > 0; --e) {
      auto at = static_cast<size_t>(g_rand_int_range(rand, 0, static_cast<gint32>(mutated.size())));
      const int how = g_rand_int_range(rand, 0, 3);
      if (how == 0) mutated[at] = static_cast<char>(g_rand_int_range(rand, 0, 256));
      if (how == 1) mutated.erase(at, static_cast<size_t>(g_rand_int_range(rand, 1, 12)));
      if (how == 2) mutated.insert(at, mutated.substr(at / 2, 10));
    }
    PXErrorRef error;
    PXValue v = PXPropertyList::propertyListWithString(mutated, PXPropertyListMutability::Immutable, &error);
    errors += !v;
    EXPECT_NE(static_cast<bool>(v), static_cast<bool>(error));
  }
  g_rand_free(rand);
  EXPECT_GT(errors, 0);
}
