// Number text both ways: edge cases against strtod, the writing against printf's "%.17g".
#include "json/internal/JSONNumbers.h"

#include <gtest/gtest.h>
#include <pxkit/json/JSONDecoder.h>
#include <pxkit/objects/PXArray.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <tuple>

#include "json/internal/JSONMessages.h"

using namespace pxkit::json::internal;

namespace {

uint64_t bitsOf(double d) {
  uint64_t bits;
  std::memcpy(&bits, &d, sizeof d);
  return bits;
}

double fromBits(uint64_t bits) {
  double d;
  std::memcpy(&d, &bits, sizeof d);
  return d;
}

// A number alone in an array, read by one decoder: the value, or the error's message in `message`.
PXValue readNumber(JSONDecoder& decoder, const std::string& text, std::string* message = nullptr) {
  const std::string doc = "[" + text + "]";
  PXErrorRef error;
  PXValue parsed = decoder.objectWithUTF8String(doc.data(), doc.size(), &error);
  if (message) *message = error ? error->localizedDescription().str() : "";
  return parsed ? parsed.arrayValue()->objectAtIndex(0) : PXValue();
}

}  // namespace

TEST(JSONNumbers, EdgeCasesReadAsTheirKindOrFailWithTheirMessage) {
  using Kind = PXValue::Kind;
  struct Row {
    const char* text;
    Kind kind;
    const char* expected;  // the integer's digits, or the error message (kind Absent)
  };
  const char* const invalid = "Invalid number.";
  const Row rows[] = {
      {"-0", Kind::Int, "0"},  // without a fraction or exponent a number is an integer, "-0" included
      {"18446744073709551615", Kind::UInt, "18446744073709551615"},
      {"-9223372036854775808", Kind::Int, "-9223372036854775808"},
      {"-a", Kind::Absent, invalid},
      {"-", Kind::Absent, invalid},
      {"-00", Kind::Absent, invalid},
      {"1.e5", Kind::Absent, invalid},
      {"1E+", Kind::Absent, invalid},
      {"18446744073709551616", Kind::Absent,
       "The value '18446744073709551616' exceeded the maximum value that could be represented: "
       "18446744073709551615."},
      {"-9223372036854775809", Kind::Absent,
       "The value '-9223372036854775809' exceeded the minimum value that could be represented: "
       "-9223372036854775808."},
      {"-17.5E+308", Kind::Absent,
       "The value '-17.5E+308' could not be represented as a 'double' due to overflow."},
      {"100000e-330", Kind::Absent,
       "The value '100000e-330' could not be represented as a 'double' due to underflow."},
      {"0.000001e-320", Kind::Absent,
       "The value '0.000001e-320' could not be represented as a 'double' due to underflow."},
  };
  auto decoder = JSONDecoder::decoder();
  for (const Row& row : rows) {
    SCOPED_TRACE(row.text);
    std::string message;
    const PXValue v = readNumber(*decoder, row.text, &message);
    ASSERT_EQ(v.kind(), row.kind);
    EXPECT_EQ(row.kind == Kind::Absent ? message
              : row.kind == Kind::Int  ? std::to_string(v.longLongValue())
                                       : std::to_string(v.unsignedLongLongValue()),
              row.expected);
  }
  // Doubles, bit for bit as strtod reads them: zero keeps its sign and is no underflow, a tie goes to even.
  for (const char* text : {"-0.0", "0e-999", "-0.0e-999", "9007199254740993.0", "2.2250738585072011e-308",
                           "8.5899345919999999e9", "1.00000000000000011102230246251565404e0",
                           "1.7976931348623157e308", "4.9406564584124654e-324", "2.2250738585072014e-308",
                           "1e-320", "43.420273000000009", "123456789012345678901234567890.5",
                           "3.141592653589793238462643383279502884197169399375105820974944592307816"}) {
    const PXValue v = readNumber(*decoder, text);
    ASSERT_EQ(v.kind(), Kind::Double) << text;
    EXPECT_EQ(bitsOf(v.doubleValue()), bitsOf(std::strtod(text, nullptr))) << text;
  }
  // The careful converter's own guard (the scanner never hands it such tokens), and its range errors.
  const std::string consumed = "The conversion function did not consume all of the number tokens characters.";
  const std::tuple<std::string, bool, std::string> tokens[] = {
      {"12x", false, consumed},
      {"-3-", false, consumed},
      {"-", false, consumed},
      {"x", false, consumed},
      {"1.5.2", true, consumed},
      {".", true, consumed},
      {"1" + std::string(400, '0'), true, "due to overflow."},
      {"0." + std::string(400, '0') + "1", true, "due to underflow."},
      {"1e+400", true, "due to overflow."},
      {"-1E-400", true, "due to underflow."},
  };
  for (const auto& [token, isFloat, ending] : tokens) {
    NumberValue number;
    std::string message;
    EXPECT_FALSE(convertNumberToken(token, isFloat, number, message)) << token;
    EXPECT_TRUE(message.ends_with(ending)) << token << ": " << message;
  }
  EXPECT_EQ(
      composeExpectedMessage(kAcceptValue | kAcceptComma | kAcceptEnd, kWordValue, kWordArrayEnd, ":").str(),
      "Expected a value, a comma, or a ']', not ':");
}

TEST(JSONNumbers, DoublesAreWrittenAsPrintfWritesThem) {
  std::mt19937_64 rng(20240521);
  auto check = [](double v) {
    char expected[64], written[kMaxDoubleChars];
    std::snprintf(expected, sizeof expected, "%.17g", v);
    ASSERT_EQ(std::string(written, writeDouble(v, written)), expected) << std::hexfloat << v;
  };
  std::uniform_real_distribution<double> exponent(-5.5, 17.5);
  for (int i = 0; i < 100000; ++i) {
    if (const double any = fromBits(rng()); std::isfinite(any)) check(any);  // every finite bit pattern
    check(std::pow(10.0, exponent(rng)));  // the common magnitudes, which take the exact integer path
    // Short decimals and their neighbours, where ties and near-ties sit.
    double v = static_cast<double>(rng() % 100000000) / std::pow(10.0, static_cast<int>(rng() % 12));
    check((rng() & 1) ? std::nextafter(v, (rng() & 2) ? 0.0 : 1e30) : v);
  }
}
