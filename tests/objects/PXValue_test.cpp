#include <gtest/gtest.h>
#include <pxkit/objects/PXArray.h>
#include <pxkit/objects/PXData.h>
#include <pxkit/objects/PXDictionary.h>
#include <pxkit/objects/PXError.h>
#include <pxkit/objects/PXValue.h>

#include <cmath>
#include <limits>
#include <string>

namespace {

constexpr int64_t kInt64Min = std::numeric_limits<int64_t>::min();
constexpr int64_t kInt64Max = std::numeric_limits<int64_t>::max();
constexpr uint64_t kUInt64Max = std::numeric_limits<uint64_t>::max();
const double kNaN = std::numeric_limits<double>::quiet_NaN();
const double kInf = std::numeric_limits<double>::infinity();

PXValue I(int64_t v) {
  return PXValue(static_cast<long long>(v));
}
PXValue U(uint64_t v) {
  return PXValue(static_cast<unsigned long long>(v));
}

}  // namespace

// Equal values compare the same and hash alike; numbers compare exactly across
// kinds, other kinds order absent < null < numbers < dates < strings < data <
// objects, and objects that are not equal have no order of their own.
TEST(PXValue, EqualityOrderAndHashAgreeAcrossKinds) {
  constexpr PXComparisonResult Asc = PXOrderedAscending, Same = PXOrderedSame, Desc = PXOrderedDescending;
  constexpr auto Unordered = static_cast<PXComparisonResult>(2);
  const PXValue same(PXArray::arrayWithObjects({1}));
  struct Row {
    const char* what;
    PXValue a, b;
    PXComparisonResult order;
  };
  const Row rows[] = {
      {"true is 1", true, 1, Same},
      {"false < true", false, true, Asc},
      {"unsigned by value", U(1), U(2), Asc},
      {"-1 is below the all-ones unsigned", -1, U(kUInt64Max), Asc},
      {"signed < unsigned above int64", I(kInt64Max), U(9223372036854775808ull), Asc},
      {"2^63 unsigned and 2^63 double", U(9223372036854775808ull), 9223372036854775808.0, Same},
      {"int64 max is below 2^63 double", I(kInt64Max), 9223372036854775808.0, Asc},
      {"int64 min and -2^63 double", I(kInt64Min), -9223372036854775808.0, Same},
      {"uint64 max is below 2^64 double", U(kUInt64Max), 18446744073709551616.0, Asc},
      {"2^53+1 is above 2^53 double", I(9007199254740993), 9007199254740992.0, Desc},
      {"2^53 int and double", I(9007199254740992), 9007199254740992.0, Same},
      {"2.5 > 2u", 2.5, U(2), Desc},
      {"NaN below 0", kNaN, 0, Asc},
      {"huge doubles", -1e300, -1e300, Same},
      {"NaN below unsigned", kNaN, U(kUInt64Max), Asc},
      {"-0.5 < unsigned 0", -0.5, U(0), Asc},
      {"1.5 < 2u", 1.5, 2u, Asc},
      {"-inf < int64 min", -kInf, I(kInt64Min), Asc},
      {"inf > uint64 max", kInf, U(kUInt64Max), Desc},
      {"-0.0 is 0", -0.0, 0, Same},
      {"NaN equals NaN", kNaN, kNaN, Same},
      {"NaN below every number", kNaN, -kInf, Asc},
      {"a number before its text", 1, "1", Asc},
      {"case matters", "abc", "ABC", Desc},
      {"bytes are unsigned", "z", "\xc3\xa9", Asc},
      {"inline and heap strings, prefix first", "12345678901234", "123456789012345", Asc},
      {"heap strings by bytes", "a string of more than sixteen bytes",
       PXString("a string of more than sixteen bytes"), Same},
      {"absent and absent", PXValue(), PXValue(), Same},
      {"null and null", PXValue::null(), PXValue::null(), Same},
      {"dates by moment", PXDate(10.5), PXDate(10.5), Same},
      {"-0 and +0 dates", PXDate(-0.0), PXDate(0), Same},
      {"data by contents", PXData::dataWithString("xyz"), PXData::dataWithString("xyz"), Same},
      {"the same array", same, same, Same},
      {"absent before null", PXValue(), PXValue::null(), Asc},
      {"null before numbers", PXValue::null(), -1e300, Asc},
      {"earlier date first", PXDate(10.25), PXDate(10.5), Asc},
      {"a date after numbers", PXDate(0), 0, Desc},
      {"data by bytes", PXData::dataWithString("ab"), PXData::dataWithString("b"), Asc},
      {"data after strings", PXData::dataWithString("xyz"), "xyz", Desc},
      {"arrays by contents", PXArray::arrayWithObjects({1, "a"}), PXArray::arrayWithObjects({true, "a"}),
       Same},
      {"arrays of another length", PXArray::arrayWithObjects({1}), PXArray::arrayWithObjects({1, 1}),
       Unordered},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    EXPECT_EQ(row.a.isEqual(row.b), row.order == Same);
    EXPECT_EQ(row.b.isEqual(row.a), row.order == Same);
    if (row.order == Same) {
      EXPECT_EQ(row.a.hash(), row.b.hash());
    }
    if (row.order == Unordered) {
      EXPECT_NE(row.a.compare(row.b), Same);
      EXPECT_EQ(row.a.compare(row.b), static_cast<PXComparisonResult>(-row.b.compare(row.a)));
    } else {
      EXPECT_EQ(row.a.compare(row.b), row.order);
      EXPECT_EQ(row.b.compare(row.a), static_cast<PXComparisonResult>(-row.order));
    }
  }
}

TEST(PXValue, DescriptionIsThePercentAtTextAndClassNameTheOneMessagesShow) {
  struct Row {
    PXValue value;
    const char* text;
    const char* className = "NSNumber";
  };
  const Row rows[] = {
      {PXValue(), "(null)", "nil"},
      {PXValue::null(), "<null>", "NSNull"},
      {true, "1"},
      {I(kInt64Min), "-9223372036854775808"},
      {U(kUInt64Max), "18446744073709551615"},
      {-0.0, "-0"},
      {1e15, "1e+15"},
      {1e-7, "1e-07"},
      {1.0 / 3, "0.3333333333333333"},
      {123456789012345678.0, "1.2345678901234568e+17"},
      {5e-324, "5e-324"},
      {kNaN, "nan"},
      {kInf, "inf"},
      {-kInf, "-inf"},
      {"as it is", "as it is", "NSString"},
      {PXDate(0), "2001-01-01 00:00:00 +0000", "NSDate"},
      {PXDate(-0.5), "2000-12-31 23:59:59 +0000", "NSDate"},
      {PXDate::dateWithTimeIntervalSince1970(951827696), "2000-02-29 12:34:56 +0000", "NSDate"},
      {PXDate::dateWithTimeIntervalSince1970(-1), "1969-12-31 23:59:59 +0000", "NSDate"},
      {PXData::dataWithString("d"), "{length = 1, bytes = 0x64}", "NSData"},
      {PXArray::array(), "(\n)", "PXArray"},
      {PXMutableDictionary::dictionary(), "{\n}", "PXMutableDictionary"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.text);
    EXPECT_EQ(row.value.description().view(), row.text);
    EXPECT_EQ(row.value.className(), row.className);
  }
}

TEST(PXValue, ConvertingAccessorsClampAndParse) {
  struct Row {
    const char* what;
    PXValue value;
    int32_t i;
    int64_t ll;
    uint64_t ull;
    double d;
    bool b;
  };
  const Row rows[] = {
      {"3.9 truncates", 3.9, 3, 3, 3, 3.9, true},
      {"-3.9 truncates", -3.9, -3, -3, static_cast<uint64_t>(-3), -3.9, true},
      {"huge double clamps", 1e300, INT32_MAX, kInt64Max, kUInt64Max, 1e300, true},
      {"tiny double clamps", -1e300, INT32_MIN, kInt64Min, static_cast<uint64_t>(kInt64Min), -1e300, true},
      {"NaN is zero", kNaN, 0, 0, 0, kNaN, true},
      {"3e9 clamps to int32", 3e9, INT32_MAX, 3000000000, 3000000000, 3e9, true},
      {"uint64 max wraps as C does", U(kUInt64Max), -1, -1, kUInt64Max, 18446744073709551616.0, true},
      {"int64 min", I(kInt64Min), 0, kInt64Min, 9223372036854775808ull, -9223372036854775808.0, true},
      {"leading space of every kind", " \t\n\r\f\v12abc", 12, 12, 12, 12.0, true},
      {"empty", "", 0, 0, 0, 0.0, false},
      {"plus sign", "+7", 7, 7, 7, 7.0, true},
      {"negative text", "-5", -5, -5, static_cast<uint64_t>(-5), -5.0, true},
      {"no digits", "abc", 0, 0, 0, 0.0, false},
      {"saturating text", "99999999999", INT32_MAX, 99999999999, 99999999999, 99999999999.0, true},
      {"beyond int64", "99999999999999999999", INT32_MAX, kInt64Max, kUInt64Max, 1e20, true},
      {"below int64", "-99999999999999999999", INT32_MIN, kInt64Min, static_cast<uint64_t>(kInt64Min), -1e20,
       true},
      {"just beyond int64", "9300000000000000000", INT32_MAX, kInt64Max, 9300000000000000000ull, 9.3e18,
       true},
      {"exponent text", "1.5e3", 1, 1, 1, 1500.0, true},
      {"too big a double", "1e999", 1, 1, 1, kInf, true},
      {"too small a negative double", "-1e999", -1, -1, static_cast<uint64_t>(-1), -kInf, true},
      {"too tiny a double", "1e-999", 1, 1, 1, 0.0, true},
      {"YES", "YES", 0, 0, 0, 0.0, true},
      {"true text", " true", 0, 0, 0, 0.0, true},
      {"True", "True", 0, 0, 0, 0.0, true},
      {"yes", "yes", 0, 0, 0, 0.0, true},
      {"not a digit past 9", ":", 0, 0, 0, 0.0, false},
      {"zeros only", "00", 0, 0, 0, 0.0, false},
      {"zeros then digit", "007", 7, 7, 7, 7.0, true},
      {"null", PXValue::null(), 0, 0, 0, 0.0, false},
      {"absent", PXValue(), 0, 0, 0, 0.0, false},
      {"true", true, 1, 1, 1, 1.0, true},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    EXPECT_EQ(row.value.intValue(), row.i);
    EXPECT_EQ(row.value.longLongValue(), row.ll);
    EXPECT_EQ(row.value.unsignedLongLongValue(), row.ull);
    if (std::isnan(row.d)) {
      EXPECT_TRUE(std::isnan(row.value.doubleValue()));
    } else {
      EXPECT_DOUBLE_EQ(row.value.doubleValue(), row.d);
    }
    EXPECT_EQ(row.value.boolValue(), row.b);
  }
}

TEST(PXValue, CopiesCountMovesTransferAndSelfAssignmentIsSafe) {
  auto array = PXArray::arrayWithObjects({1, 2});
  uint32_t base = array->retainCount();
  {
    PXValue c(array);
    auto& alias = c;
    c = alias;
    c = std::move(alias);
    EXPECT_EQ(array->retainCount(), base + 1);
  }
  EXPECT_EQ(array->retainCount(), base);
  EXPECT_TRUE(PXValue().isIdenticalTo(PXValue()) && PXValue::null().isIdenticalTo(PXValue::null()));
  EXPECT_TRUE(PXValue(static_cast<const char*>(nullptr)).isAbsent());
  EXPECT_FALSE(PXValue(PXMutableData::data()).copy().dataValue()->isMutable());
  EXPECT_EQ(PXValue(1).dateValue(), PXDate());
}
