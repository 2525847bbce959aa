#include <gtest/gtest.h>
#include <pxkit/objects/PXArray.h>
#include <pxkit/objects/PXData.h>
#include <pxkit/objects/PXDictionary.h>
#include <pxkit/objects/PXError.h>
#include <pxkit/objects/PXValue.h>

#include <cmath>
#include <cstdlib>
#include <limits>
#include <random>
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

// ---- Equality and hashing ---------------------------------------------------

TEST(PXValue, EqualityAcrossKindsAndHashAgreement) {
  struct Row {
    const char* what;
    PXValue a, b;
    bool equal;
  };
  const Row rows[] = {
      {"true is 1", true, 1, true},
      {"false is 0", false, 0, true},
      {"true is not 2", true, 2, false},
      {"true is 1.0", true, 1.0, true},
      {"signed and unsigned", 1, 1u, true},
      {"-1 is not the all-ones unsigned", -1, U(kUInt64Max), false},
      {"2^63 unsigned and 2^63 double", U(9223372036854775808ull), 9223372036854775808.0, true},
      {"int64 max is not 2^63 double", I(kInt64Max), 9223372036854775808.0, false},
      {"int64 min and -2^63 double", I(kInt64Min), -9223372036854775808.0, true},
      {"uint64 max is not 2^64 double", U(kUInt64Max), 18446744073709551616.0, false},
      {"2^53+1 is not 2^53 double", I(9007199254740993), 9007199254740992.0, false},
      {"2^53 int and double", I(9007199254740992), 9007199254740992.0, true},
      {"0.5 is not 0", 0.5, 0, false},
      {"-0.5 is not 0", -0.5, 0, false},
      {"-0.0 is 0", -0.0, 0, true},
      {"-0.0 is +0.0", -0.0, 0.0, true},
      {"NaN equals NaN", kNaN, kNaN, true},
      {"NaN is not 0", kNaN, 0, false},
      {"inf is not uint64 max", kInf, U(kUInt64Max), false},
      {"a number is not its text", 1, "1", false},
      {"strings by bytes", "abc", std::string("abc"), true},
      {"case matters", "abc", "ABC", false},
      {"inline and heap strings differ", "12345678901234", "123456789012345", false},
      {"heap strings by bytes", "a string of more than fourteen", PXString("a string of more than fourteen"),
       true},
      {"empty string", "", std::string_view(), true},
      {"null and null", PXValue::null(), PXValue::null(), true},
      {"absent and absent", PXValue(), PXValue(), true},
      {"absent is not null", PXValue(), PXValue::null(), false},
      {"null is not 0", PXValue::null(), 0, false},
      {"dates by moment", PXDate(10.5), PXDate(10.5), true},
      {"different moments", PXDate(10.5), PXDate(10.25), false},
      {"a date is not its number", PXDate(0), 0, false},
      {"data by contents", PXData::dataWithString("xyz"), PXData::dataWithString("xyz"), true},
      {"data is not a string", PXData::dataWithString("xyz"), "xyz", false},
      {"arrays by contents", PXArray::arrayWithObjects({1, "a"}), PXArray::arrayWithObjects({true, "a"}),
       true},
      {"arrays of another length", PXArray::arrayWithObjects({1}), PXArray::arrayWithObjects({1, 1}), false},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    EXPECT_EQ(row.a.isEqual(row.b), row.equal);
    EXPECT_EQ(row.b.isEqual(row.a), row.equal);
    if (row.equal) {
      EXPECT_EQ(row.a.hash(), row.b.hash());
      EXPECT_EQ(row.a.compare(row.b), PXOrderedSame);
    }
  }
}

// ---- Order ------------------------------------------------------------------

TEST(PXValue, CompareOrdersNumbersExactlyAndOtherKindsByKind) {
  struct Row {
    const char* what;
    PXValue a, b;
    PXComparisonResult expected;
  };
  const Row rows[] = {
      {"1 < 2", 1, 2, PXOrderedAscending},
      {"signed < unsigned above int64", I(kInt64Max), U(9223372036854775808ull), PXOrderedAscending},
      {"negative < any unsigned", -1, U(0), PXOrderedAscending},
      {"0.5 > 0", 0.5, 0, PXOrderedDescending},
      {"-0.5 < 0", -0.5, U(0), PXOrderedAscending},
      {"1.5 < 2u", 1.5, 2u, PXOrderedAscending},
      {"2^64 > uint64 max", 18446744073709551616.0, U(kUInt64Max), PXOrderedDescending},
      {"-1e300 < int64 min", -1e300, I(kInt64Min), PXOrderedAscending},
      {"2^53+1 > 2^53 double", I(9007199254740993), 9007199254740992.0, PXOrderedDescending},
      {"uint max - 1 < 2^64 double", U(kUInt64Max - 1), 18446744073709551616.0, PXOrderedAscending},
      {"-inf < int64 min", -kInf, I(kInt64Min), PXOrderedAscending},
      {"NaN below every number", kNaN, -kInf, PXOrderedAscending},
      {"false < true", false, true, PXOrderedAscending},
      {"strings by bytes", "abc", "abd", PXOrderedAscending},
      {"prefix first", "ab", "abc", PXOrderedAscending},
      {"bytes are unsigned", "z", "\xc3\xa9", PXOrderedAscending},
      {"earlier date first", PXDate(-1), PXDate(0), PXOrderedAscending},
      {"absent before null", PXValue(), PXValue::null(), PXOrderedAscending},
      {"null before numbers", PXValue::null(), -1e300, PXOrderedAscending},
      {"numbers before strings", 1e300, "", PXOrderedAscending},
      {"data by bytes", PXData::dataWithString("ab"), PXData::dataWithString("b"), PXOrderedAscending},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    EXPECT_EQ(row.a.compare(row.b), row.expected);
    EXPECT_EQ(row.b.compare(row.a), static_cast<PXComparisonResult>(-row.expected));
  }
}

// ---- Text -------------------------------------------------------------------

TEST(PXValue, DescriptionIsThePercentAtText) {
  struct Row {
    PXValue value;
    const char* text;
  };
  const Row rows[] = {
      {PXValue(), "(null)"},
      {PXValue::null(), "<null>"},
      {true, "1"},
      {false, "0"},
      {0, "0"},
      {-42, "-42"},
      {I(kInt64Min), "-9223372036854775808"},
      {U(kUInt64Max), "18446744073709551615"},
      {0.1, "0.1"},
      {3.0, "3"},
      {-0.0, "-0"},
      {1.5, "1.5"},
      {100000.0, "100000"},
      {1e15, "1e+15"},
      {123456789012.0, "123456789012"},
      {1e20, "1e+20"},
      {1e-7, "1e-07"},
      {0.0001, "0.0001"},
      {1.0 / 3, "0.3333333333333333"},
      {2.0 / 3, "0.6666666666666666"},
      {123456789012345678.0, "1.2345678901234568e+17"},
      {5e-324, "5e-324"},
      {kNaN, "nan"},
      {kInf, "inf"},
      {-kInf, "-inf"},
      {"as it is", "as it is"},
      {PXDate(0), "2001-01-01 00:00:00 +0000"},
      {PXDate(0.999), "2001-01-01 00:00:00 +0000"},
      {PXDate(-0.5), "2000-12-31 23:59:59 +0000"},
      {PXDate::dateWithTimeIntervalSince1970(0), "1970-01-01 00:00:00 +0000"},
      {PXDate::dateWithTimeIntervalSince1970(951827696), "2000-02-29 12:34:56 +0000"},
      {PXDate::dateWithTimeIntervalSince1970(4102444799), "2099-12-31 23:59:59 +0000"},
      {PXDate::dateWithTimeIntervalSince1970(-86400), "1969-12-31 00:00:00 +0000"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.text);
    EXPECT_EQ(row.value.description().view(), row.text);
  }
}

TEST(PXValue, ClassNameForMessages) {
  EXPECT_EQ(PXValue().className(), "nil");
  EXPECT_EQ(PXValue::null().className(), "NSNull");
  EXPECT_EQ(PXValue(true).className(), "NSNumber");
  EXPECT_EQ(PXValue(2.5).className(), "NSNumber");
  EXPECT_EQ(U(1).className(), "NSNumber");
  EXPECT_EQ(PXValue("s").className(), "NSString");
  EXPECT_EQ(PXValue(PXDate(1)).className(), "NSDate");
  EXPECT_EQ(PXValue(PXData::dataWithString("d")).className(), "NSData");
  EXPECT_EQ(PXValue(PXArray::array()).className(), "PXArray");
  EXPECT_EQ(PXValue(PXMutableDictionary::dictionary()).className(), "PXMutableDictionary");
}

// ---- Conversions ------------------------------------------------------------

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
      {"true", true, 1, 1, 1, 1.0, true},
      {"leading digits", "  12abc", 12, 12, 12, 12.0, true},
      {"negative text", "-5", -5, -5, static_cast<uint64_t>(-5), -5.0, true},
      {"plus sign", "+7", 7, 7, 7, 7.0, true},
      {"no digits", "abc", 0, 0, 0, 0.0, false},
      {"saturating text", "99999999999", INT32_MAX, 99999999999, 99999999999, 99999999999.0, true},
      {"beyond int64", "99999999999999999999", INT32_MAX, kInt64Max, kUInt64Max, 1e20, true},
      {"below int64", "-99999999999999999999", INT32_MIN, kInt64Min, static_cast<uint64_t>(kInt64Min), -1e20,
       true},
      {"exponent text", "1.5e3", 1, 1, 1, 1500.0, true},
      {"YES", "YES", 0, 0, 0, 0.0, true},
      {"true text", " true", 0, 0, 0, 0.0, true},
      {"no", "no", 0, 0, 0, 0.0, false},
      {"zeros then digit", "007", 7, 7, 7, 7.0, true},
      {"null", PXValue::null(), 0, 0, 0, 0.0, false},
      {"absent", PXValue(), 0, 0, 0, 0.0, false},
      {"date", PXDate(12), 0, 0, 0, 0.0, false},
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

// ---- Lifetime ---------------------------------------------------------------

TEST(PXValue, CopiesCountMovesTransferAndSelfAssignmentIsSafe) {
  auto array = PXArray::arrayWithObjects({1, 2});
  uint32_t base = array->retainCount();
  {
    PXValue a(array);
    EXPECT_EQ(array->retainCount(), base + 1);
    PXValue b = a;
    EXPECT_EQ(array->retainCount(), base + 2);
    PXValue c = std::move(b);
    EXPECT_EQ(array->retainCount(), base + 2);
    EXPECT_TRUE(b.isAbsent());  // NOLINT(bugprone-use-after-move): moved-from is absent by contract
    auto& alias = c;
    c = alias;
    c = std::move(alias);
    EXPECT_EQ(array->retainCount(), base + 2);
    c = 5;  // releases the array
    EXPECT_EQ(array->retainCount(), base + 1);
    a = PXValue("a long string that lives on the heap");
    EXPECT_EQ(array->retainCount(), base);
  }
  PXString heap("another string longer than fourteen bytes");
  PXValue s(heap);
  PXValue t = s;
  t = s;
  EXPECT_EQ(t.stringValue().data(), heap.c_str());
}
