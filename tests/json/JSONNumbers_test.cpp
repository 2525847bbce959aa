// The codec's number text and message helpers, checked against the C library.
#include "json/internal/JSONNumbers.h"

#include <gtest/gtest.h>
#include <pxkit/json/JSONDecoder.h>
#include <pxkit/objects/PXArray.h>

#include <cfloat>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "json/internal/JSONMessages.h"

using namespace pxkit::json::internal;

namespace {

std::string viaPrintf(double value) {
  char buf[64];
  std::snprintf(buf, sizeof buf, "%.17g", value);
  return buf;
}

std::string viaCodec(double value) {
  char buf[kMaxDoubleChars];
  char* end = writeDouble(value, buf);
  return std::string(buf, end);
}

double fromBits(uint64_t bits) {
  double d;
  std::memcpy(&d, &bits, sizeof d);
  return d;
}

}  // namespace

TEST(JSONNumbers, DoublesMatchPrintfOverRandomValues) {
  std::mt19937_64 rng(20240521);
  // Every finite bit pattern is fair game.
  for (int i = 0; i < 100000; ++i) {
    double v = fromBits(rng());
    if (!std::isfinite(v)) continue;
    ASSERT_EQ(viaCodec(v), viaPrintf(v)) << std::hexfloat << v;
  }
  // The common magnitudes, which take the exact integer path.
  std::uniform_real_distribution<double> exponent(-5.5, 17.5);
  for (int i = 0; i < 100000; ++i) {
    double v = std::pow(10.0, exponent(rng));
    ASSERT_EQ(viaCodec(v), viaPrintf(v)) << std::hexfloat << v;
  }
  // Short decimals and their neighbours, where ties and near-ties sit.
  for (int i = 0; i < 100000; ++i) {
    const double scale = std::pow(10.0, static_cast<int>(rng() % 12));
    double v = static_cast<double>(rng() % 100000000) / scale;
    if (rng() & 1) v = std::nextafter(v, (rng() & 2) ? 0.0 : 1e30);
    ASSERT_EQ(viaCodec(v), viaPrintf(v)) << std::hexfloat << v;
  }
}

// Decimal text through the decoder, bit for bit against the C library's strtod:
// the forms "%g" writes for random doubles, up to twenty random digits with
// exponents around the fast ranges, and texts close to halfway between two
// neighbouring doubles.
TEST(JSONNumbers, DecimalsReadExactlyAsStrtodReadsThem) {
  std::mt19937_64 rng(99);
  auto decoder = JSONDecoder::decoder();
  char buf[128];
  for (int i = 0; i < 100000; ++i) {
    std::string text;
    if (i % 5 < 2) {
      std::snprintf(buf, sizeof buf, "%.*g", static_cast<int>(1 + rng() % 19), fromBits(rng()));
      text = buf;
    } else if (i % 5 < 4) {
      const int digits = 1 + static_cast<int>(rng() % 20);
      text = (rng() & 1) ? "-" : "";
      for (int d = 0; d < digits; ++d) {
        if (d > 0 && static_cast<int>(rng() % digits) == 0 && text.find('.') == std::string::npos)
          text += ".";
        text += static_cast<char>('0' + (d == 0 ? 1 + rng() % 9 : rng() % 10));
      }
      text += "e" + std::to_string(static_cast<int>(rng() % 100) - 60);
    } else {
      const double a = std::pow(10.0, static_cast<double>(rng() % 40) - 20.0) *
                       (1.0 + static_cast<double>(rng() % 1000000) / 1e6);
      const long double mid =
          (static_cast<long double>(a) + static_cast<long double>(std::nextafter(a, 1e300))) / 2;
      std::snprintf(buf, sizeof buf, "%.*Le", static_cast<int>(15 + rng() % 10), mid);
      text = buf;
    }
    const double expected = std::strtod(text.c_str(), nullptr);
    if (std::isnan(expected) || std::isinf(expected)) continue;  // not JSON, or an overflow error
    if (expected == 0.0 && text.find_first_of("123456789") < text.find_first_of("eE")) continue;  // underflow
    const std::string doc = "[" + text + "]";
    PXValue parsed = decoder->objectWithUTF8String(doc.data(), doc.size());
    ASSERT_TRUE(parsed) << text;
    const PXValue& number = parsed.arrayValue()->objectAtIndex(0);
    if (number.kind() != PXValue::Kind::Double) {
      ASSERT_EQ(number.doubleValue(), expected) << text;  // integers, whose text has no point or exponent
      continue;
    }
    const double got = number.doubleValue();
    uint64_t gotBits, expectedBits;
    std::memcpy(&gotBits, &got, sizeof got);
    std::memcpy(&expectedBits, &expected, sizeof expected);
    ASSERT_EQ(gotBits, expectedBits) << text;
  }
}

TEST(JSONNumbers, EightByteDigitRunsMatchOneByteAtATime) {
  std::mt19937_64 rng(5);
  const char alphabet[] = "0123456789012345678901234567890123456789.eE+-,]} \x7f\xff/:";
  for (int i = 0; i < 200000; ++i) {
    char bytes[8];
    for (char& b : bytes) b = alphabet[rng() % (sizeof alphabet - 1)];
    if (rng() % 4 == 0) bytes[rng() % 8] = static_cast<char>(rng());  // any byte at all
    uint64_t chunk;
    std::memcpy(&chunk, bytes, 8);
    int count = 0;
    uint32_t value = 0;
    while (count < 8 && bytes[count] >= '0' && bytes[count] <= '9')
      value = value * 10 + (bytes[count++] - '0');
    ASSERT_EQ(leadingDigitCount(chunk), count) << std::string(bytes, 8);
    ASSERT_EQ(isEightDigits(chunk), count == 8);
    if (count > 0) {
      ASSERT_EQ(leadingDigitsValue(chunk, count), value) << std::string(bytes, 8);
    }
  }
}

TEST(JSONNumbers, ConversionReportsTokensItCannotConsume) {
  // The scanner only hands over grammatical tokens, so this is the converter's own guard.
  NumberValue number;
  std::string message;
  for (const char* token : {"12x", "-3-", "1.5.2"}) {
    EXPECT_FALSE(convertNumberToken(token, std::strchr(token, '.') != nullptr, number, message)) << token;
    EXPECT_EQ(message, "The conversion function did not consume all of the number tokens characters.");
  }
  // And converts what it can.
  ASSERT_TRUE(convertNumberToken("-0", false, number, message));
  EXPECT_EQ(number.kind, NumberValue::Kind::Signed);
  EXPECT_EQ(number.i, 0);
  ASSERT_TRUE(convertNumberToken("18446744073709551615", false, number, message));
  EXPECT_EQ(number.kind, NumberValue::Kind::Unsigned);
  EXPECT_EQ(number.u, UINT64_MAX);
  ASSERT_TRUE(convertNumberToken("-9223372036854775808", false, number, message));
  EXPECT_EQ(number.kind, NumberValue::Kind::Signed);
  EXPECT_EQ(number.i, INT64_MIN);
}

// The one- and two-word forms are pinned by the decoder's error table; no grammar
// state accepts all three, but the form exists, without its closing quote.
TEST(JSONNumbers, ExpectedMessagesNameTheAcceptedTokens) {
  EXPECT_EQ(
      composeExpectedMessage(kAcceptValue | kAcceptComma | kAcceptEnd, kWordValue, kWordArrayEnd, ":").str(),
      "Expected a value, a comma, or a ']', not ':");
}
