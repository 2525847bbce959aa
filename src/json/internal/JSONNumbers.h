// Number text for the JSON codec: reading number tokens, writing integers and "%.17g" doubles.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace pxkit::json::internal {

// Longest text writeDouble produces ("-2.2250738585072014e-308" is 24), with room to spare.
inline constexpr size_t kMaxDoubleChars = 32;
// Longest text of a 64-bit integer with sign.
inline constexpr size_t kMaxIntegerChars = 21;

// Writes `value` exactly as printf("%.17g") would (same digits, same layout) and
// returns the end. `value` must be finite. Common magnitudes take an exact integer
// path; the rest go through std::to_chars with precision 17.
char* writeDouble(double value, char* out) noexcept;
char* writeUInt64(uint64_t value, char* out) noexcept;
char* writeInt64(int64_t value, char* out) noexcept;

// ---- Reading decimals ----------------------------------------------------------

__extension__ typedef unsigned __int128 uint128;

// Whether the 8 bytes (little-endian) are all ASCII digits.
inline bool isEightDigits(uint64_t chunk) noexcept {
  return ((chunk & 0xF0F0F0F0F0F0F0F0ull) |
          (((chunk + 0x0606060606060606ull) & 0xF0F0F0F0F0F0F0F0ull) >> 4)) == 0x3333333333333333ull;
}

// The value of 8 ASCII digits (the first byte is the most significant digit).
inline uint32_t eightDigitsValue(uint64_t chunk) noexcept {
  chunk -= 0x3030303030303030ull;
  chunk = chunk * 10 + (chunk >> 8);  // pairs
  chunk = (((chunk & 0x000000FF000000FFull) * (100 + (1000000ull << 32))) +
           (((chunk >> 16) & 0x000000FF000000FFull) * (1 + (10000ull << 32)))) >>
          32;
  return static_cast<uint32_t>(chunk);
}

// How many of the 8 bytes, from the first, are ASCII digits (0 to 8).
inline int leadingDigitCount(uint64_t chunk) noexcept {
  // Per byte, nonzero when it is not a digit. A carry out of a byte only
  // disturbs the bytes after a non-digit, which are not counted anyway.
  const uint64_t notDigit =
      ((chunk & 0xF0F0F0F0F0F0F0F0ull) ^ 0x3030303030303030ull) |
      (((chunk + 0x0606060606060606ull) & 0xF0F0F0F0F0F0F0F0ull) ^ 0x3030303030303030ull);
  return notDigit == 0 ? 8 : __builtin_ctzll(notDigit) / 8;
}

// The value of the first `count` (1 to 8) bytes of the chunk, all ASCII digits.
inline uint32_t leadingDigitsValue(uint64_t chunk, int count) noexcept {
  if (count == 8) return eightDigitsValue(chunk);
  // Move the digits to the end and put '0's before them.
  const int shift = 8 * (8 - count);
  return eightDigitsValue((chunk << shift) | (0x3030303030303030ull >> (8 * count)));
}

inline constexpr uint64_t kPowersOfTen[] = {1ull,
                                            10ull,
                                            100ull,
                                            1000ull,
                                            10000ull,
                                            100000ull,
                                            1000000ull,
                                            10000000ull,
                                            100000000ull,
                                            1000000000ull,
                                            10000000000ull,
                                            100000000000ull,
                                            1000000000000ull,
                                            10000000000000ull,
                                            100000000000000ull,
                                            1000000000000000ull,
                                            10000000000000000ull,
                                            100000000000000000ull,
                                            1000000000000000000ull,
                                            10000000000000000000ull};

// 5^q as a 128-bit significand and a binary exponent, 5^q = significand * 2^exponent
// with the significand in [2^127, 2^128): exact for q >= 0, rounded down by less
// than one unit for q < 0.
struct PowerOfFive {
  uint128 significand;
  int exponent;
};

inline constexpr int kMinPowerOfFive = -27;  // 5^27 < 2^63: the divisor fits in 64 bits
inline constexpr int kMaxPowerOfFive = 55;   // 5^55 < 2^128: exact in 128 bits

struct PowersOfFive {
  PowerOfFive table[kMaxPowerOfFive - kMinPowerOfFive + 1];

  static constexpr int bitLength(uint128 v) {
    int n = 0;
    while (v != 0) {
      v >>= 1;
      ++n;
    }
    return n;
  }

  constexpr PowersOfFive() : table() {
    uint128 power = 1;
    for (int q = 0; q <= kMaxPowerOfFive; ++q) {
      const int shift = 128 - bitLength(power);
      table[q - kMinPowerOfFive] = {power << shift, -shift};
      if (q < kMaxPowerOfFive) power *= 5;
    }
    uint64_t divisor = 1;
    for (int q = 1; q <= -kMinPowerOfFive; ++q) {
      divisor *= 5;
      // floor(2^(127 + b) / 5^q), where 5^q has b bits: a quotient in (2^127, 2^128).
      const int b = bitLength(divisor);
      const int numeratorBit = 127 + b;  // at most 190: three 64-bit words
      uint64_t words[3] = {0, 0, 0};     // most significant first
      words[2 - numeratorBit / 64] = 1ull << (numeratorBit % 64);
      uint128 remainder = 0, quotient = 0;
      for (uint64_t word : words) {
        const uint128 current = (remainder << 64) | word;
        quotient = (quotient << 64) | static_cast<uint64_t>(current / divisor);
        remainder = current % divisor;
      }
      table[-q - kMinPowerOfFive] = {quotient, -numeratorBit};
    }
  }
};

inline constexpr PowersOfFive kPowersOfFive{};

// The double nearest to w * 10^q (ties to even), negated when asked. Exact; false
// only where this quick method cannot decide (exponents outside [-27, 55], rare
// near-ties, subnormal or overflowing results), and the caller then uses the
// general converter.
[[gnu::always_inline]] inline bool decimalToDouble(uint64_t w, int q, bool negative, double& out) noexcept {
  // Exact operands and one correctly rounded operation.
  static constexpr double kExactPowers[] = {1e0,  1e1,  1e2,  1e3,  1e4,  1e5,  1e6,  1e7,
                                            1e8,  1e9,  1e10, 1e11, 1e12, 1e13, 1e14, 1e15,
                                            1e16, 1e17, 1e18, 1e19, 1e20, 1e21, 1e22};
  if (w <= (1ull << 53) && q >= -22 && q <= 22) {
    double d = static_cast<double>(w);
    d = q < 0 ? d / kExactPowers[-q] : d * kExactPowers[q];
    out = negative ? -d : d;
    return true;
  }
  if (w == 0 || q < kMinPowerOfFive || q > kMaxPowerOfFive) return false;
  // w * 10^q = (w << lz) * 5^q * 2^(q - lz): a 64 by 128 bit product, of which
  // the top 54 bits (the significand and one rounding bit) decide.
  const int lz = __builtin_clzll(w);
  const uint64_t wn = w << lz;
  const PowerOfFive& p = kPowersOfFive.table[q - kMinPowerOfFive];
  const uint128 low = static_cast<uint128>(wn) * static_cast<uint64_t>(p.significand);
  const uint128 high = static_cast<uint128>(wn) * static_cast<uint64_t>(p.significand >> 64);
  // The product is high * 2^64 + low: 192 bits, at least 2^190.
  const uint128 top = high + (low >> 64);              // bits 64..191
  const uint64_t bottom = static_cast<uint64_t>(low);  // bits 0..63
  const int topBit = (top >> 127) ? 191 : 190;
  const int dropped = topBit + 1 - 54;  // bits below the 54 kept ones: 136 or 137
  const int droppedInTop = dropped - 64;
  const uint64_t kept = static_cast<uint64_t>(top >> droppedInTop);
  const uint128 restLimit = (static_cast<uint128>(1) << droppedInTop) - 1;
  const uint128 restHigh = top & restLimit;
  const bool restIsZero = restHigh == 0 && bottom == 0;
  if (q < 0) {
    // The table rounded 5^q down: the true product is larger by less than 2^64.
    // Give up where that could carry into the kept bits, or hide an exact tie.
    if (restHigh == restLimit) return false;
    if ((kept & 1) && restIsZero) return false;
  }
  uint64_t significand = kept >> 1;
  if ((kept & 1) && (!restIsZero || (significand & 1))) ++significand;  // to nearest, ties to even
  int exponent = dropped + 1 + q + p.exponent - lz + 52;                // value in [2^e, 2^(e+1))
  if (significand == (1ull << 53)) {
    significand >>= 1;
    ++exponent;
  }
  const int biased = exponent + 1023;
  if (biased <= 0 || biased >= 0x7FF) return false;  // subnormal or out of range
  const uint64_t bits = (static_cast<uint64_t>(negative) << 63) | (static_cast<uint64_t>(biased) << 52) |
                        (significand & ((1ull << 52) - 1));
  __builtin_memcpy(&out, &bits, sizeof out);
  return true;
}

// A converted number token.
struct NumberValue {
  enum class Kind : uint8_t { Signed, Unsigned, Double } kind = Kind::Unsigned;
  union {
    int64_t i;
    uint64_t u;
    double d;
  };
  NumberValue() : u(0) {}
};

// Converts a number token that the scanner has already checked against the JSON
// number grammar: integers to 64-bit integers (signed when negative, "-0" to
// the integer 0), tokens with a fraction or exponent to
// correctly rounded doubles. On failure returns false and sets `message` to the
// codec's text (range errors; a token the converter does not consume entirely).
bool convertNumberToken(std::string_view token, bool isFloat, NumberValue& out, std::string& message);

}  // namespace pxkit::json::internal
