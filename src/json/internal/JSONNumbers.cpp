#include "json/internal/JSONNumbers.h"

#include <pxkit/objects/PXFormat.h>

#include <charconv>
#include <climits>
#include <cstring>
#include <system_error>

#include "json/internal/JSONMessages.h"

namespace pxkit::json::internal {

namespace {

constexpr char kDigitPairs[] =
    "00010203040506070809101112131415161718192021222324252627282930313233343536373839"
    "40414243444546474849505152535455565758596061626364656667686970717273747576777879"
    "8081828384858687888990919293949596979899";

// Writes exactly `count` digits of `value` (zero-padded on the left), count even.
inline void writeFixedDigits(uint32_t value, char* out, int count) noexcept {
  for (int i = count - 2; i >= 0; i -= 2) {
    std::memcpy(out + i, kDigitPairs + 2 * (value % 100), 2);
    value /= 100;
  }
}

__extension__ typedef unsigned __int128 u128;

inline u128 pow10u128(int k) noexcept {
  // 10^k for 0 <= k <= 38.
  if (k <= 19) return kPowersOfTen[k];
  return static_cast<u128>(kPowersOfTen[19]) * kPowersOfTen[k - 19];
}

// The 17 significant digits of a positive normal double, correctly rounded
// (ties to even, like the C library in its default rounding mode), and the
// decimal exponent of the first digit. Returns false when the value lies
// outside the range this exact integer method covers; the caller then uses
// the general converter.
bool seventeenDigits(uint64_t bits, uint64_t& digits, int& exponent10) noexcept {
  const int biased = static_cast<int>((bits >> 52) & 0x7FF);
  if (biased == 0 || biased == 0x7FF) return false;  // subnormal, or not finite
  const uint64_t m = (bits & ((1ull << 52) - 1)) | (1ull << 52);
  const int q = biased - 1075;   // value = m * 2^q
  const int e2 = biased - 1023;  // floor(log2(value))
  // floor(e2 * log10(2)), exact over the doubles' exponent range; the value's
  // decimal exponent is this or one more.
  int x = (e2 * 78913) >> 18;
  // Covered: 1e-5 <= value < 1e17, where m * 10^k (k <= 22) fits in 128 bits and
  // the binary point is at most 127 places in.
  if (x < -6 || x > 16) return false;
  constexpr uint64_t kLow = 10000000000000000ull;    // 10^16
  constexpr uint64_t kHigh = 100000000000000000ull;  // 10^17
  for (int attempt = 0; attempt < 2; ++attempt) {
    const int k = 16 - x;
    if (k < 0 || k > 22) return false;
    u128 scaled = static_cast<u128>(m) * pow10u128(k);  // value * 10^k * 2^-q
    u128 integer;
    u128 remainder = 0, half = 0;
    if (q >= 0) {
      integer = scaled << q;
    } else {
      const int s = -q;
      if (s > 127) return false;
      integer = scaled >> s;
      remainder = scaled & ((static_cast<u128>(1) << s) - 1);
      half = static_cast<u128>(1) << (s - 1);
    }
    if (integer >= kHigh) {
      ++x;  // the first digit is one place higher
      continue;
    }
    if (integer < kLow) {
      --x;
      continue;
    }
    uint64_t n = static_cast<uint64_t>(integer);
    if (half != 0 && (remainder > half || (remainder == half && (n & 1)))) ++n;
    if (n == kHigh) {
      n = kLow;
      ++x;
    }
    if (x < -5) return false;  // keep to the covered range
    digits = n;
    exponent10 = x;
    return true;
  }
  return false;
}

}  // namespace

char* writeUInt64(uint64_t value, char* out) noexcept {
  // The number of digits from the bit length, corrected by one comparison.
  const int bits = 64 - __builtin_clzll(value | 1);
  int length = (bits * 1233) >> 12;  // floor(bits * log10(2))
  if (length < 19 && value >= kPowersOfTen[length]) ++length;
  if (length == 19 && value >= kPowersOfTen[19]) length = 20;
  if (length == 0) length = 1;
  char* p = out + length;
  while (value >= 100) {
    p -= 2;
    std::memcpy(p, kDigitPairs + 2 * (value % 100), 2);
    value /= 100;
  }
  if (value >= 10) {
    std::memcpy(p - 2, kDigitPairs + 2 * value, 2);
  } else {
    p[-1] = static_cast<char>('0' + value);
  }
  return out + length;
}

char* writeInt64(int64_t value, char* out) noexcept {
  if (value < 0) {
    *out++ = '-';
    return writeUInt64(0 - static_cast<uint64_t>(value), out);
  }
  return writeUInt64(static_cast<uint64_t>(value), out);
}

char* writeDouble(double value, char* out) noexcept {
  uint64_t bits;
  std::memcpy(&bits, &value, sizeof bits);
  const bool negative = (bits >> 63) != 0;
  const uint64_t magnitude = bits & ~(1ull << 63);
  if (magnitude == 0) {
    if (negative) *out++ = '-';
    *out++ = '0';
    return out;
  }
  uint64_t n;
  int x;
  if (!seventeenDigits(magnitude, n, x)) {
    auto result = std::to_chars(out, out + kMaxDoubleChars, value, std::chars_format::general, 17);
    return result.ptr;
  }
  if (negative) *out++ = '-';
  char d[17];
  d[0] = static_cast<char>('0' + n / kPowersOfTen[16]);
  const uint64_t rest = n % kPowersOfTen[16];
  writeFixedDigits(static_cast<uint32_t>(rest / 100000000u), d + 1, 8);
  writeFixedDigits(static_cast<uint32_t>(rest % 100000000u), d + 9, 8);
  int last = 16;  // index of the last digit kept: "%g" drops trailing zeros
  while (last > 0 && d[last] == '0') --last;
  if (x < -4 || x >= 17) {
    *out++ = d[0];
    if (last > 0) {
      *out++ = '.';
      std::memcpy(out, d + 1, static_cast<size_t>(last));
      out += last;
    }
    *out++ = 'e';
    int e = x;
    if (e < 0) {
      *out++ = '-';
      e = -e;
    } else {
      *out++ = '+';
    }
    if (e >= 100) {
      *out++ = static_cast<char>('0' + e / 100);
      e %= 100;
    }
    std::memcpy(out, kDigitPairs + 2 * e, 2);
    return out + 2;
  }
  if (x >= 0) {
    std::memcpy(out, d, static_cast<size_t>(x) + 1);
    out += x + 1;
    if (last > x) {
      *out++ = '.';
      std::memcpy(out, d + x + 1, static_cast<size_t>(last - x));
      out += last - x;
    }
    return out;
  }
  *out++ = '0';
  *out++ = '.';
  for (int i = -1; i > x; --i) *out++ = '0';
  std::memcpy(out, d, static_cast<size_t>(last) + 1);
  return out + last + 1;
}

namespace {

// Whether an out-of-range decimal token is too large (else too small): the
// decimal exponent of its first significant digit decides, and for tokens
// outside the double range it is far from zero either way.
bool tokenOverflows(std::string_view token) {
  size_t i = 0;
  if (i < token.size() && token[i] == '-') ++i;
  long long magnitude = 0;  // decimal exponent of the first nonzero digit, before the exponent part
  bool seenNonZero = false;
  long long integerDigits = 0, leadingFractionZeros = 0;
  for (; i < token.size() && token[i] >= '0' && token[i] <= '9'; ++i) {
    if (token[i] != '0' || seenNonZero) {
      seenNonZero = true;
      ++integerDigits;
    }
  }
  if (i < token.size() && token[i] == '.') {
    for (++i; i < token.size() && token[i] >= '0' && token[i] <= '9'; ++i) {
      if (!seenNonZero) {
        if (token[i] == '0') {
          ++leadingFractionZeros;
        } else {
          seenNonZero = true;
        }
      }
    }
  }
  magnitude = integerDigits > 0 ? integerDigits - 1 : -(leadingFractionZeros + 1);
  long long exponent = 0;
  if (i < token.size() && (token[i] == 'e' || token[i] == 'E')) {
    ++i;
    bool negativeExponent = false;
    if (i < token.size() && (token[i] == '+' || token[i] == '-')) negativeExponent = token[i++] == '-';
    for (; i < token.size() && token[i] >= '0' && token[i] <= '9'; ++i) {
      if (exponent < 100000000) exponent = exponent * 10 + (token[i] - '0');
    }
    if (negativeExponent) exponent = -exponent;
  }
  return magnitude + exponent > 0;
}

}  // namespace

bool convertNumberToken(std::string_view token, bool isFloat, NumberValue& out, std::string& message) {
  const char* first = token.data();
  const char* last = token.data() + token.size();
  const std::string text(token);  // for messages; numbers reach here rarely (long or out of range)
  const bool negative = !token.empty() && token[0] == '-';
  if (isFloat) {
    double d = 0;
    auto result = std::from_chars(first, last, d, std::chars_format::general);
    if (result.ec == std::errc::result_out_of_range) {
      message =
          PXFormat(kMessageDoubleRange, text.c_str(), tokenOverflows(token) ? "overflow" : "underflow").str();
      return false;
    }
    if (result.ec != std::errc() || result.ptr != last) {
      message = kMessageNumberNotConsumed;
      return false;
    }
    out.kind = NumberValue::Kind::Double;
    out.d = d;
    return true;
  }
  if (negative) {
    uint64_t magnitude = 0;
    auto result = std::from_chars(first + 1, last, magnitude, 10);
    if (result.ec == std::errc::result_out_of_range ||
        (result.ec == std::errc() && magnitude > static_cast<uint64_t>(INT64_MAX) + 1)) {
      message = PXFormat(kMessageIntegerMinimum, text.c_str(), static_cast<long long>(INT64_MIN)).str();
      return false;
    }
    if (result.ec != std::errc() || result.ptr != last) {
      message = kMessageNumberNotConsumed;
      return false;
    }
    out.kind = NumberValue::Kind::Signed;
    out.i = static_cast<int64_t>(0 - magnitude);
    return true;
  }
  uint64_t value = 0;
  auto result = std::from_chars(first, last, value, 10);
  if (result.ec == std::errc::result_out_of_range) {
    message =
        PXFormat(kMessageIntegerMaximum, text.c_str(), static_cast<unsigned long long>(UINT64_MAX)).str();
    return false;
  }
  if (result.ec != std::errc() || result.ptr != last) {
    message = kMessageNumberNotConsumed;
    return false;
  }
  out.kind = NumberValue::Kind::Unsigned;
  out.u = value;
  return true;
}

}  // namespace pxkit::json::internal
