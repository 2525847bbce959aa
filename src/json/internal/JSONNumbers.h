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
// number grammar: integers to 64-bit integers (signed when negative, "-0" to the
// double -0.0 so that its sign survives), tokens with a fraction or exponent to
// correctly rounded doubles. On failure returns false and sets `message` to the
// codec's text (range errors; a token the converter does not consume entirely).
bool convertNumberToken(std::string_view token, bool isFloat, NumberValue& out, std::string& message);

}  // namespace pxkit::json::internal
