#include <pxkit/objects/PXArray.h>
#include <pxkit/objects/PXData.h>
#include <pxkit/objects/PXDictionary.h>
#include <pxkit/objects/PXValue.h>

#include <charconv>
#include <cmath>
#include <cstdio>
#include <limits>

#include "objects/internal/ValueText.h"

using pxkit::internal::StringRep;

namespace {

constexpr double kTwo63 = 9223372036854775808.0;
constexpr double kTwo64 = 18446744073709551616.0;

// ---- Numbers ----------------------------------------------------------------

// A number value seen as one of the three representations it can have.
struct Number {
  enum class Rep : uint8_t { Signed, Unsigned, Double } rep;
  int64_t i = 0;
  uint64_t u = 0;
  double d = 0;
};

int sign(int64_t a, int64_t b) {
  return a < b ? -1 : (a > b ? 1 : 0);
}
int sign(uint64_t a, uint64_t b) {
  return a < b ? -1 : (a > b ? 1 : 0);
}

// Doubles order numerically; NaN equals NaN and sorts below every other number,
// so that sorting and hashing see one total order.
int compareDoubles(double a, double b) {
  bool an = std::isnan(a), bn = std::isnan(b);
  if (an || bn) return an == bn ? 0 : (an ? -1 : 1);
  return a < b ? -1 : (a > b ? 1 : 0);
}

// Exact comparison of a double with a signed integer, without rounding either.
int compareDoubleSigned(double d, int64_t i) {
  if (std::isnan(d)) return -1;
  if (d < -kTwo63) return -1;
  if (d >= kTwo63) return 1;
  auto t = static_cast<int64_t>(d);  // in range: truncation is exact
  if (int c = sign(t, i)) return c;
  double frac = d - static_cast<double>(t);
  return frac > 0 ? 1 : (frac < 0 ? -1 : 0);
}

int compareDoubleUnsigned(double d, uint64_t u) {
  if (std::isnan(d)) return -1;
  if (d < 0) return -1;
  if (d >= kTwo64) return 1;
  auto t = static_cast<uint64_t>(d);
  if (int c = sign(t, u)) return c;
  return d - static_cast<double>(t) > 0 ? 1 : 0;
}

int compareSignedUnsigned(int64_t i, uint64_t u) {
  if (i < 0) return -1;
  return sign(static_cast<uint64_t>(i), u);
}

int compareNumbers(const Number& a, const Number& b) {
  using R = Number::Rep;
  switch (a.rep) {
    case R::Signed:
      if (b.rep == R::Signed) return sign(a.i, b.i);
      if (b.rep == R::Unsigned) return compareSignedUnsigned(a.i, b.u);
      return -compareDoubleSigned(b.d, a.i);
    case R::Unsigned:
      if (b.rep == R::Signed) return -compareSignedUnsigned(b.i, a.u);
      if (b.rep == R::Unsigned) return sign(a.u, b.u);
      return -compareDoubleUnsigned(b.d, a.u);
    case R::Double:
      if (b.rep == R::Signed) return compareDoubleSigned(a.d, b.i);
      if (b.rep == R::Unsigned) return compareDoubleUnsigned(a.d, b.u);
      return compareDoubles(a.d, b.d);
  }
  return 0;
}

// Converting doubles to integers clamps to the target's range (NaN gives 0):
// the plain C conversion of an out-of-range double is undefined.
int64_t clampToInt64(double d) {
  if (std::isnan(d)) return 0;
  if (d <= -kTwo63) return std::numeric_limits<int64_t>::min();
  if (d >= kTwo63) return std::numeric_limits<int64_t>::max();
  return static_cast<int64_t>(d);
}

int32_t clampToInt32(double d) {
  if (std::isnan(d)) return 0;
  if (d <= -2147483648.0) return std::numeric_limits<int32_t>::min();
  if (d >= 2147483647.0) return std::numeric_limits<int32_t>::max();
  return static_cast<int32_t>(d);
}

uint64_t clampToUInt64(double d) {
  if (std::isnan(d)) return 0;
  if (d < 0) return static_cast<uint64_t>(clampToInt64(d));  // as through a signed register
  if (d >= kTwo64) return std::numeric_limits<uint64_t>::max();
  return static_cast<uint64_t>(d);
}

// ---- Numbers in strings -----------------------------------------------------

bool isSpace(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v';
}

std::string_view skipSpace(std::string_view s) {
  size_t i = 0;
  while (i < s.size() && isSpace(s[i])) ++i;
  return s.substr(i);
}

// Leading white space, an optional sign, then decimal digits; saturates.
int64_t parseInt64(std::string_view s) {
  s = skipSpace(s);
  bool negative = false;
  if (!s.empty() && (s[0] == '-' || s[0] == '+')) {
    negative = s[0] == '-';
    s.remove_prefix(1);
  }
  uint64_t magnitude = 0;
  bool overflow = false;
  for (char c : s) {
    if (c < '0' || c > '9') break;
    if (magnitude > (UINT64_MAX - 9) / 10) overflow = true;
    if (!overflow) magnitude = magnitude * 10 + static_cast<uint64_t>(c - '0');
  }
  if (negative) {
    if (overflow || magnitude > 9223372036854775808ull) return std::numeric_limits<int64_t>::min();
    return static_cast<int64_t>(0 - magnitude);
  }
  if (overflow || magnitude > static_cast<uint64_t>(std::numeric_limits<int64_t>::max()))
    return std::numeric_limits<int64_t>::max();
  return static_cast<int64_t>(magnitude);
}

uint64_t parseUInt64(std::string_view s) {
  std::string_view t = skipSpace(s);
  if (!t.empty() && t[0] == '-') return static_cast<uint64_t>(parseInt64(t));
  if (!t.empty() && t[0] == '+') t.remove_prefix(1);
  uint64_t value = 0;
  for (char c : t) {
    if (c < '0' || c > '9') break;
    auto digit = static_cast<uint64_t>(c - '0');
    if (value > (UINT64_MAX - digit) / 10) return UINT64_MAX;
    value = value * 10 + digit;
  }
  return value;
}

double parseDouble(std::string_view s) {
  s = skipSpace(s);
  if (!s.empty() && s[0] == '+') s.remove_prefix(1);
  double value = 0;
  auto result = std::from_chars(s.data(), s.data() + s.size(), value);
  if (result.ec == std::errc::result_out_of_range) {
    // from_chars leaves the value alone; report the direction of the overflow.
    bool negative = !s.empty() && s[0] == '-';
    size_t e = s.find_first_of("eE");
    bool tiny = e != std::string_view::npos && e + 1 < s.size() && s[e + 1] == '-';
    if (tiny) return negative ? -0.0 : 0.0;
    return negative ? -HUGE_VAL : HUGE_VAL;
  }
  return result.ec == std::errc() ? value : 0.0;
}

// "YES", "true", "1", "+7": white space, a sign and zeros skipped, then Y, y, T, t or 1-9.
bool parseBool(std::string_view s) {
  s = skipSpace(s);
  if (!s.empty() && (s[0] == '-' || s[0] == '+')) s.remove_prefix(1);
  while (!s.empty() && s[0] == '0') s.remove_prefix(1);
  if (s.empty()) return false;
  char c = s[0];
  return c == 'Y' || c == 'y' || c == 'T' || c == 't' || (c >= '1' && c <= '9');
}

// ---- Hashing ----------------------------------------------------------------

__extension__ typedef unsigned __int128 UInt128;

inline uint64_t mix(uint64_t a, uint64_t b) {
  UInt128 r = static_cast<UInt128>(a) * b;
  return static_cast<uint64_t>(r) ^ static_cast<uint64_t>(r >> 64);
}

constexpr uint64_t kMix0 = 0xa0761d6478bd642full;
constexpr uint64_t kMix1 = 0xe7037ed1a0b428dbull;
constexpr uint64_t kMix2 = 0x8ebc6af09c88c6e3ull;

inline uint64_t read64(const unsigned char* p) {
  uint64_t v;
  std::memcpy(&v, p, 8);
  return v;
}
inline uint64_t read32(const unsigned char* p) {
  uint32_t v;
  std::memcpy(&v, p, 4);
  return v;
}

size_t hashInteger(uint64_t v) {
  return mix(v ^ kMix0, kMix1);
}

size_t hashDouble(double d) {
  if (std::isnan(d)) return 0x7ff8;
  if (d == 0) d = 0;  // -0 and +0 are equal
  uint64_t bits;
  std::memcpy(&bits, &d, sizeof bits);
  return mix(bits ^ kMix2, kMix1);
}

// Numbers that are equal hash equal whatever their kind: integral doubles hash
// as the integer they hold.
size_t hashNumber(const Number& n) {
  switch (n.rep) {
    case Number::Rep::Signed:
      return hashInteger(static_cast<uint64_t>(n.i));
    case Number::Rep::Unsigned:
      return hashInteger(n.u);
    case Number::Rep::Double:
      if (std::isfinite(n.d) && std::trunc(n.d) == n.d) {
        if (n.d >= -kTwo63 && n.d < 0) return hashInteger(static_cast<uint64_t>(static_cast<int64_t>(n.d)));
        if (n.d >= 0 && n.d < kTwo64) return hashInteger(static_cast<uint64_t>(n.d));
      }
      return hashDouble(n.d);
  }
  return 0;
}

int kindRank(PXValue::Kind k) {
  switch (k) {
    case PXValue::Kind::Absent:
      return 0;
    case PXValue::Kind::Null:
      return 1;
    case PXValue::Kind::Bool:
    case PXValue::Kind::Int:
    case PXValue::Kind::UInt:
    case PXValue::Kind::Double:
      return 2;
    case PXValue::Kind::Date:
      return 3;
    case PXValue::Kind::String:
      return 4;
    case PXValue::Kind::Data:
      return 5;
    case PXValue::Kind::Object:
      return 6;
  }
  return 7;
}

PXComparisonResult toResult(int c) {
  return c < 0 ? PXOrderedAscending : (c > 0 ? PXOrderedDescending : PXOrderedSame);
}

int compareBytes(std::string_view a, std::string_view b) {
  int c = a.compare(b);
  return c < 0 ? -1 : (c > 0 ? 1 : 0);
}

}  // namespace

namespace pxkit::internal {

size_t hashStringBytes(std::string_view bytes) noexcept {
  const auto* p = reinterpret_cast<const unsigned char*>(bytes.data());
  size_t n = bytes.size();
  uint64_t seed = kMix0 ^ n;
  while (n > 16) {
    seed = mix(read64(p) ^ kMix1, read64(p + 8) ^ seed);
    p += 16;
    n -= 16;
  }
  uint64_t a = 0, b = 0;
  if (n >= 8) {
    a = read64(p);
    b = read64(p + n - 8);
  } else if (n >= 4) {
    a = read32(p);
    b = read32(p + n - 4);
  } else if (n > 0) {
    a = (static_cast<uint64_t>(p[0]) << 16) | (static_cast<uint64_t>(p[n >> 1]) << 8) | p[n - 1];
  }
  return mix(kMix1 ^ bytes.size(), mix(a ^ kMix1, b ^ seed));
}

void appendShortestDouble(std::string& out, double value) {
  if (std::isnan(value)) {
    out += "nan";
    return;
  }
  if (std::isinf(value)) {
    out += value < 0 ? "-inf" : "inf";
    return;
  }
  // The shortest digits that read back as `value`, laid out as "%.*g" lays out
  // a number with P = max(digits, 15) significant digits and trailing zeros
  // dropped: plain notation for exponents from -4 up to P - 1, else "d.ddde+XX".
  char buffer[40];
  auto r = std::to_chars(buffer, buffer + sizeof buffer, value, std::chars_format::scientific);
  std::string_view scientific(buffer, static_cast<size_t>(r.ptr - buffer));
  size_t e = scientific.find('e');
  std::string_view mantissa = scientific.substr(0, e);
  int exponent = 0;
  std::from_chars(scientific.data() + e + 1 + (scientific[e + 1] == '+'),
                  scientific.data() + scientific.size(), exponent);
  bool negative = mantissa[0] == '-';
  if (negative) mantissa.remove_prefix(1);
  char digits[24];
  int count = 0;
  for (char c : mantissa) {
    if (c != '.') digits[count++] = c;
  }
  int precision = count > 15 ? count : 15;
  if (negative) out += '-';
  if (exponent < -4 || exponent >= precision) {
    out += digits[0];
    if (count > 1) {
      out += '.';
      out.append(digits + 1, static_cast<size_t>(count - 1));
    }
    char tail[8];
    int n = std::snprintf(tail, sizeof tail, "e%c%02d", exponent < 0 ? '-' : '+',
                          exponent < 0 ? -exponent : exponent);
    out.append(tail, static_cast<size_t>(n));
  } else if (exponent < 0) {
    out += "0.";
    out.append(static_cast<size_t>(-exponent - 1), '0');
    out.append(digits, static_cast<size_t>(count));
  } else if (count <= exponent + 1) {
    out.append(digits, static_cast<size_t>(count));
    out.append(static_cast<size_t>(exponent + 1 - count), '0');
  } else {
    out.append(digits, static_cast<size_t>(exponent + 1));
    out += '.';
    out.append(digits + exponent + 1, static_cast<size_t>(count - exponent - 1));
  }
}

void appendDateDescription(std::string& out, double sinceReferenceDate) {
  double unix = std::floor(sinceReferenceDate + kPXTimeIntervalSince1970);
  // Beyond ±10^15 seconds the calendar arithmetic below would overflow.
  if (!(unix > -1e15)) unix = -1e15;
  if (unix > 1e15) unix = 1e15;
  auto seconds = static_cast<int64_t>(unix);
  int64_t days = seconds / 86400;
  int64_t rest = seconds % 86400;
  if (rest < 0) {
    rest += 86400;
    days -= 1;
  }
  // Civil date from days since 1970-01-01 (proleptic Gregorian).
  int64_t z = days + 719468;
  int64_t era = (z >= 0 ? z : z - 146096) / 146097;
  int64_t doe = z - era * 146097;
  int64_t yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  int64_t y = yoe + era * 400;
  int64_t doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  int64_t mp = (5 * doy + 2) / 153;
  int64_t d = doy - (153 * mp + 2) / 5 + 1;
  int64_t m = mp < 10 ? mp + 3 : mp - 9;
  if (m <= 2) ++y;
  char text[64];
  int n = std::snprintf(text, sizeof text, "%04lld-%02lld-%02lld %02lld:%02lld:%02lld +0000",
                        static_cast<long long>(y), static_cast<long long>(m), static_cast<long long>(d),
                        static_cast<long long>(rest / 3600), static_cast<long long>(rest / 60 % 60),
                        static_cast<long long>(rest % 60));
  out.append(text, static_cast<size_t>(n));
}

namespace {

void appendIndent(std::string& out, unsigned depth) {
  out.append(static_cast<size_t>(depth) * 4, ' ');
}

bool needsQuotes(std::string_view text) {
  if (text.empty()) return true;
  for (char c : text) {
    bool alnum = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
    if (!alnum) return true;
  }
  return false;
}

void appendLeaf(std::string& out, std::string_view text) {
  if (!needsQuotes(text)) {
    out += text;
    return;
  }
  out += '"';
  for (char c : text) {
    switch (c) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\n':
        out += "\\n";
        break;
      default:
        out += c;
    }
  }
  out += '"';
}

}  // namespace

void appendPropertyListText(std::string& out, const PXValue& value, unsigned depth) {
  PXObject* object = value.isObject() ? value.objectPointer() : nullptr;
  if (object && object->objectTag() == PXObjectTag::Array) {
    const auto& array = static_cast<const PXArray&>(*object);
    out += "(\n";
    size_t i = 0;
    for (const PXValue& element : array) {
      appendIndent(out, depth + 1);
      appendPropertyListText(out, element, depth + 1);
      out += ++i < array.count() ? ",\n" : "\n";
    }
    appendIndent(out, depth);
    out += ')';
  } else if (object && object->objectTag() == PXObjectTag::Dictionary) {
    const auto& dictionary = static_cast<const PXDictionary&>(*object);
    out += "{\n";
    for (const auto& [key, element] : dictionary) {
      appendIndent(out, depth + 1);
      appendPropertyListText(out, key, depth + 1);
      out += " = ";
      appendPropertyListText(out, element, depth + 1);
      out += ";\n";
    }
    appendIndent(out, depth);
    out += '}';
  } else if (value.isString()) {
    appendLeaf(out, value.stringValue());
  } else {
    appendLeaf(out, value.description().view());
  }
}

}  // namespace pxkit::internal

// ---- Construction -----------------------------------------------------------

PXValue::PXValue(const char* text) : PXValue(text ? std::string_view(text) : std::string_view()) {
  if (!text) setKind(Kind::Absent);
}

PXValue::PXValue(std::string_view text) {
  if (text.size() <= kSmallCapacity) {
    std::memset(raw_, 0, sizeof raw_);
    if (!text.empty()) std::memcpy(raw_, text.data(), text.size());
    raw_[14] = static_cast<unsigned char>(text.size());
    raw_[15] = kSmallString;
  } else {
    setScalar(Kind::String, StringRep::make(text.data(), text.size()));
  }
}

PXValue::PXValue(const PXString& text) noexcept {
  if (!text) {
    setKind(Kind::Absent);
  } else if (text.size() <= kSmallCapacity) {
    std::memset(raw_, 0, sizeof raw_);
    std::memcpy(raw_, text.c_str(), text.size());
    raw_[14] = static_cast<unsigned char>(text.size());
    raw_[15] = kSmallString;
  } else {
    text.rep()->retain();
    setScalar(Kind::String, text.rep());
  }
}

PXValue::PXValue(const PXRef<PXObject>& object) noexcept {
  if (!object) {
    setKind(Kind::Absent);
    return;
  }
  object->retain();
  setScalar(object->objectTag() == PXObjectTag::Data ? Kind::Data : Kind::Object, object.get());
}

void PXValue::retainObject() const noexcept {
  payload<PXObject*>()->retain();
}

void PXValue::releaseObject() noexcept {
  payload<PXObject*>()->release();
}

// ---- Kind -------------------------------------------------------------------

bool PXValue::isArray() const noexcept {
  return rawKind() == static_cast<uint8_t>(Kind::Object) &&
         payload<PXObject*>()->objectTag() == PXObjectTag::Array;
}

bool PXValue::isDictionary() const noexcept {
  return rawKind() == static_cast<uint8_t>(Kind::Object) &&
         payload<PXObject*>()->objectTag() == PXObjectTag::Dictionary;
}

PXString PXValue::className() const {
  switch (kind()) {
    case Kind::Absent:
      return "nil";
    case Kind::Null:
      return "NSNull";
    case Kind::Bool:
    case Kind::Int:
    case Kind::UInt:
    case Kind::Double:
      return "NSNumber";
    case Kind::Date:
      return "NSDate";
    case Kind::String:
      return "NSString";
    case Kind::Data:
      return "NSData";
    case Kind::Object:
      return PXString(payload<PXObject*>()->pxClass().name());
  }
  return "nil";
}

// ---- Access -----------------------------------------------------------------

bool PXValue::boolValue() const noexcept {
  switch (kind()) {
    case Kind::Bool:
    case Kind::Int:
      return payload<int64_t>() != 0;
    case Kind::UInt:
      return payload<uint64_t>() != 0;
    case Kind::Double:
      return payload<double>() != 0;
    case Kind::String:
      return parseBool(stringValue());
    default:
      return false;
  }
}

int32_t PXValue::intValue() const noexcept {
  switch (kind()) {
    case Kind::Bool:
    case Kind::Int:
      return static_cast<int32_t>(payload<int64_t>());
    case Kind::UInt:
      return static_cast<int32_t>(payload<uint64_t>());
    case Kind::Double:
      return clampToInt32(payload<double>());
    case Kind::String: {
      int64_t v = parseInt64(stringValue());
      if (v > std::numeric_limits<int32_t>::max()) return std::numeric_limits<int32_t>::max();
      if (v < std::numeric_limits<int32_t>::min()) return std::numeric_limits<int32_t>::min();
      return static_cast<int32_t>(v);
    }
    default:
      return 0;
  }
}

int64_t PXValue::longLongValue() const noexcept {
  switch (kind()) {
    case Kind::Bool:
    case Kind::Int:
      return payload<int64_t>();
    case Kind::UInt:
      return static_cast<int64_t>(payload<uint64_t>());
    case Kind::Double:
      return clampToInt64(payload<double>());
    case Kind::String:
      return parseInt64(stringValue());
    default:
      return 0;
  }
}

uint64_t PXValue::unsignedLongLongValue() const noexcept {
  switch (kind()) {
    case Kind::Bool:
    case Kind::Int:
      return static_cast<uint64_t>(payload<int64_t>());
    case Kind::UInt:
      return payload<uint64_t>();
    case Kind::Double:
      return clampToUInt64(payload<double>());
    case Kind::String:
      return parseUInt64(stringValue());
    default:
      return 0;
  }
}

double PXValue::doubleValue() const noexcept {
  switch (kind()) {
    case Kind::Bool:
    case Kind::Int:
      return static_cast<double>(payload<int64_t>());
    case Kind::UInt:
      return static_cast<double>(payload<uint64_t>());
    case Kind::Double:
      return payload<double>();
    case Kind::String:
      return parseDouble(stringValue());
    default:
      return 0;
  }
}

PXString PXValue::stringObject() const {
  if (rawKind() == kSmallString) return PXString(stringValue());
  if (rawKind() == static_cast<uint8_t>(Kind::String)) {
    StringRep* rep = payload<StringRep*>();
    rep->retain();
    return PXString::adopt(rep);
  }
  return {};
}

PXDate PXValue::dateValue() const noexcept {
  return kind() == Kind::Date ? PXDate(payload<double>()) : PXDate();
}

PXObject* PXValue::objectPointer() const noexcept {
  Kind k = kind();
  return k == Kind::Object || k == Kind::Data ? payload<PXObject*>() : nullptr;
}

PXRef<PXObject> PXValue::objectValue() const noexcept {
  return PXRef<PXObject>(objectPointer());
}

PXRef<PXArray> PXValue::arrayValue() const noexcept {
  return isArray() ? PXRef<PXArray>(static_cast<PXArray*>(payload<PXObject*>())) : PXRef<PXArray>();
}

PXRef<PXDictionary> PXValue::dictionaryValue() const noexcept {
  return isDictionary() ? PXRef<PXDictionary>(static_cast<PXDictionary*>(payload<PXObject*>()))
                        : PXRef<PXDictionary>();
}

PXRef<PXData> PXValue::dataValue() const noexcept {
  return kind() == Kind::Data ? PXRef<PXData>(static_cast<PXData*>(payload<PXObject*>())) : PXRef<PXData>();
}

PXRef<PXMutableArray> PXValue::mutableArrayValue() const noexcept {
  if (!isArray() || !payload<PXObject*>()->isMutable()) return {};
  return PXRef<PXMutableArray>(static_cast<PXMutableArray*>(payload<PXObject*>()));
}

PXRef<PXMutableDictionary> PXValue::mutableDictionaryValue() const noexcept {
  if (!isDictionary() || !payload<PXObject*>()->isMutable()) return {};
  return PXRef<PXMutableDictionary>(static_cast<PXMutableDictionary*>(payload<PXObject*>()));
}

// ---- Equality, order, hash, text --------------------------------------------

namespace {

Number numberOf(PXValue::Kind kind, const PXValue& v) {
  Number n{};
  switch (kind) {
    case PXValue::Kind::UInt:
      n.rep = Number::Rep::Unsigned;
      n.u = v.unsignedLongLongValue();
      break;
    case PXValue::Kind::Double:
      n.rep = Number::Rep::Double;
      n.d = v.doubleValue();
      break;
    default:
      n.rep = Number::Rep::Signed;
      n.i = v.longLongValue();
  }
  return n;
}

bool isNumberKind(PXValue::Kind k) {
  return k == PXValue::Kind::Bool || k == PXValue::Kind::Int || k == PXValue::Kind::UInt ||
         k == PXValue::Kind::Double;
}

}  // namespace

bool PXValue::isEqualSlow(const PXValue& other) const noexcept {
  if (rawKind() == kSmallString && other.rawKind() == kSmallString)
    return std::memcmp(raw_, other.raw_, sizeof raw_) == 0;
  Kind a = kind(), b = other.kind();
  if (isNumberKind(a) && isNumberKind(b)) {
    if (a == b && a != Kind::Double) return payload<uint64_t>() == other.payload<uint64_t>();
    return compareNumbers(numberOf(a, *this), numberOf(b, other)) == 0;
  }
  if (a != b) return false;
  switch (a) {
    case Kind::Date:
      return compareDoubles(payload<double>(), other.payload<double>()) == 0;
    case Kind::String:
      return stringValue() == other.stringValue();
    case Kind::Data:
    case Kind::Object: {
      PXObject* x = payload<PXObject*>();
      PXObject* y = other.payload<PXObject*>();
      return x == y || x->isEqual(*y);
    }
    default:  // absent, null
      return true;
  }
}

PXComparisonResult PXValue::compare(const PXValue& other) const noexcept {
  Kind a = kind(), b = other.kind();
  int ra = kindRank(a), rb = kindRank(b);
  if (ra != rb) return toResult(ra < rb ? -1 : 1);
  switch (a) {
    case Kind::Bool:
    case Kind::Int:
    case Kind::UInt:
    case Kind::Double:
      return toResult(compareNumbers(numberOf(a, *this), numberOf(b, other)));
    case Kind::Date:
      return toResult(compareDoubles(payload<double>(), other.payload<double>()));
    case Kind::String:
      return toResult(compareBytes(stringValue(), other.stringValue()));
    case Kind::Data:
      return toResult(compareBytes(static_cast<PXData*>(payload<PXObject*>())->view(),
                                   static_cast<PXData*>(other.payload<PXObject*>())->view()));
    case Kind::Object: {
      // Objects have no natural order: equal ones are the same, others order by address.
      PXObject* x = payload<PXObject*>();
      PXObject* y = other.payload<PXObject*>();
      if (x == y || x->isEqual(*y)) return PXOrderedSame;
      return toResult(std::less<const PXObject*>()(x, y) ? -1 : 1);
    }
    default:
      return PXOrderedSame;
  }
}

size_t PXValue::hash() const noexcept {
  Kind k = kind();
  switch (k) {
    case Kind::Absent:
      return 0;
    case Kind::Null:
      return 0x6e756c6c;
    case Kind::Bool:
    case Kind::Int:
    case Kind::UInt:
    case Kind::Double:
      return hashNumber(numberOf(k, *this));
    case Kind::Date:
      return hashDouble(payload<double>()) ^ 0xda7e;
    case Kind::String:
      return pxkit::internal::hashStringBytes(stringValue());
    case Kind::Data:
    case Kind::Object:
      return payload<PXObject*>()->hash();
  }
  return 0;
}

bool PXValue::isIdenticalTo(const PXValue& other) const noexcept {
  if (rawKind() != other.rawKind()) return false;
  switch (rawKind()) {
    case kSmallString:
      return std::memcmp(raw_, other.raw_, sizeof raw_) == 0;
    case static_cast<uint8_t>(Kind::Absent):
    case static_cast<uint8_t>(Kind::Null):
      return true;
    default:  // scalars by their bits, shared storage by its address
      return payload<uint64_t>() == other.payload<uint64_t>();
  }
}

PXString PXValue::description() const {
  switch (kind()) {
    case Kind::Absent:
      return "(null)";
    case Kind::Null:
      return "<null>";
    case Kind::Bool:
      return payload<int64_t>() ? "1" : "0";
    case Kind::Int: {
      char text[24];
      auto r = std::to_chars(text, text + sizeof text, payload<int64_t>());
      return PXString(std::string_view(text, static_cast<size_t>(r.ptr - text)));
    }
    case Kind::UInt: {
      char text[24];
      auto r = std::to_chars(text, text + sizeof text, payload<uint64_t>());
      return PXString(std::string_view(text, static_cast<size_t>(r.ptr - text)));
    }
    case Kind::Double: {
      std::string text;
      pxkit::internal::appendShortestDouble(text, payload<double>());
      return PXString(text);
    }
    case Kind::Date: {
      std::string text;
      pxkit::internal::appendDateDescription(text, payload<double>());
      return PXString(text);
    }
    case Kind::String:
      return stringObject();
    case Kind::Data:
    case Kind::Object:
      return payload<PXObject*>()->description();
  }
  return "(null)";
}

PXValue PXValue::copy() const {
  Kind k = kind();
  if (k == Kind::Object || k == Kind::Data) return PXValue(payload<PXObject*>()->copy());
  return *this;
}
