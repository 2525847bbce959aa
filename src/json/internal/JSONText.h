// Byte-level helpers shared by the JSON decoder and serializer: UTF-8 sequences,
// the search for the next byte a string scanner must look at, string hashing.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace pxkit::json::internal {

inline constexpr uint32_t kReplacementCharacter = 0xFFFD;

// ---- UTF-8 ---------------------------------------------------------------------

enum class UTF8Status : uint8_t {
  Ok,         // a well-formed sequence of `length` bytes
  Illegal,    // ill-formed; `length` is its maximal subpart (at least 1 byte)
  Truncated,  // a well-formed prefix cut off by the end of the input (`length` bytes)
};

struct UTF8Sequence {
  UTF8Status status;
  uint8_t length;
  uint32_t codePoint;
};

// Reads the sequence that starts with the non-ASCII byte at `p` (p < end).
// Overlong forms, surrogates and code points above U+10FFFF are ill-formed; the
// maximal-subpart length lets a lenient reader replace each bad stretch by one
// U+FFFD, as Unicode recommends.
inline UTF8Sequence decodeUTF8(const uint8_t* p, const uint8_t* end) noexcept {
  const uint8_t lead = p[0];
  unsigned need;
  uint8_t low = 0x80, high = 0xBF;  // range of the second byte
  uint32_t cp;
  if (lead >= 0xC2 && lead <= 0xDF) {
    need = 1;
    cp = lead & 0x1F;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    need = 2;
    cp = lead & 0x0F;
    if (lead == 0xE0) low = 0xA0;
    if (lead == 0xED) high = 0x9F;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    need = 3;
    cp = lead & 0x07;
    if (lead == 0xF0) low = 0x90;
    if (lead == 0xF4) high = 0x8F;
  } else {
    return {UTF8Status::Illegal, 1, 0};
  }
  for (unsigned i = 1; i <= need; ++i) {
    if (p + i >= end) return {UTF8Status::Truncated, static_cast<uint8_t>(i), 0};
    const uint8_t c = p[i];
    const uint8_t lo = i == 1 ? low : 0x80, hi = i == 1 ? high : 0xBF;
    if (c < lo || c > hi) return {UTF8Status::Illegal, static_cast<uint8_t>(i), 0};
    cp = (cp << 6) | (c & 0x3F);
  }
  return {UTF8Status::Ok, static_cast<uint8_t>(need + 1), cp};
}

// Appends the UTF-8 form of a code point (at most U+10FFFF, not a surrogate).
inline void appendUTF8(std::string& out, uint32_t cp) {
  char buf[4];
  size_t n;
  if (cp < 0x80) {
    buf[0] = static_cast<char>(cp);
    n = 1;
  } else if (cp < 0x800) {
    buf[0] = static_cast<char>(0xC0 | (cp >> 6));
    buf[1] = static_cast<char>(0x80 | (cp & 0x3F));
    n = 2;
  } else if (cp < 0x10000) {
    buf[0] = static_cast<char>(0xE0 | (cp >> 12));
    buf[1] = static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    buf[2] = static_cast<char>(0x80 | (cp & 0x3F));
    n = 3;
  } else {
    buf[0] = static_cast<char>(0xF0 | (cp >> 18));
    buf[1] = static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
    buf[2] = static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    buf[3] = static_cast<char>(0x80 | (cp & 0x3F));
    n = 4;
  }
  out.append(buf, n);
}

// ---- Scanning ------------------------------------------------------------------

// Bytes a string scanner can copy without a second look: printable ASCII other
// than the quote and the backslash.
struct PlainStringBytes {
  bool table[256];
  constexpr PlainStringBytes() : table() {
    for (int c = 0x20; c < 0x80; ++c) table[c] = c != '"' && c != '\\';
  }
};
inline constexpr PlainStringBytes kPlainStringBytes{};

// The first byte in [p, end) that is a quote, a backslash, a control character
// or non-ASCII; `end` when there is none. Sixteen bytes at a time where it can.
inline const uint8_t* findStringSpecial(const uint8_t* p, const uint8_t* end) noexcept {
#if defined(__SSE2__)
  const __m128i quote = _mm_set1_epi8('"');
  const __m128i backslash = _mm_set1_epi8('\\');
  const __m128i controlLimit = _mm_set1_epi8(0x1F);
  while (end - p >= 16) {
    const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
    const __m128i special = _mm_or_si128(_mm_or_si128(_mm_cmpeq_epi8(v, quote), _mm_cmpeq_epi8(v, backslash)),
                                         _mm_cmpeq_epi8(_mm_max_epu8(v, controlLimit), controlLimit));
    const unsigned mask = static_cast<unsigned>(_mm_movemask_epi8(special)) |
                          static_cast<unsigned>(_mm_movemask_epi8(v));  // high bit: non-ASCII
    if (mask != 0) return p + __builtin_ctz(mask);
    p += 16;
  }
#endif
  while (p < end && kPlainStringBytes.table[*p]) ++p;
  return p;
}

// The four white-space characters of JSON.
struct WhitespaceBytes {
  bool table[256];
  constexpr WhitespaceBytes() : table() {
    table[0x20] = table[0x09] = table[0x0A] = table[0x0D] = true;
  }  // space, tab, LF, CR
};
inline constexpr WhitespaceBytes kWhitespaceBytes{};

// The first byte in [p, end) that is not JSON white space. Indented documents
// have long runs of it, compact ones none or a single space.
inline const uint8_t* skipPlainWhitespace(const uint8_t* p, const uint8_t* end) noexcept {
#if defined(__SSE2__)
  const __m128i space = _mm_set1_epi8(' ');
  const __m128i newline = _mm_set1_epi8('\n');
  const __m128i carriageReturn = _mm_set1_epi8('\r');
  const __m128i tab = _mm_set1_epi8('\t');
  auto whiteMask = [&](const uint8_t* at) {
    const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(at));
    const __m128i white =
        _mm_or_si128(_mm_or_si128(_mm_cmpeq_epi8(v, space), _mm_cmpeq_epi8(v, newline)),
                     _mm_or_si128(_mm_cmpeq_epi8(v, carriageReturn), _mm_cmpeq_epi8(v, tab)));
    return static_cast<uint32_t>(_mm_movemask_epi8(white));
  };
  // Thirty-two bytes per step: a line break and the indentation of an indented
  // document usually end within the first step.
  while (end - p >= 32) {
    const uint32_t other = ~(whiteMask(p) | (whiteMask(p + 16) << 16));
    if (other != 0) return p + __builtin_ctz(other);
    p += 32;
  }
  if (end - p >= 16) {
    const uint32_t other = ~whiteMask(p) & 0xFFFFu;
    if (other != 0) return p + __builtin_ctz(other);
    p += 16;
  }
#endif
  while (p < end && kWhitespaceBytes.table[*p]) ++p;
  return p;
}

// The end of the run of well-formed text from `p` that needs no second look:
// plain ASCII and valid multi-byte sequences. Stops at a quote, a backslash, a
// control character, an ill-formed or cut-off sequence, or `end`. Text in other
// scripts is mostly multi-byte sequences with a little ASCII between them, which
// this walks without restarting a wider search at every character.
inline const uint8_t* skipValidUTF8(const uint8_t* p, const uint8_t* end) noexcept {
  while (p < end) {
    const uint8_t lead = *p;
    if (lead < 0x80) {
      if (!kPlainStringBytes.table[lead]) return p;
      ++p;
      continue;
    }
    if (lead >= 0xC2 && lead <= 0xDF) {
      if (end - p < 2 || (p[1] & 0xC0) != 0x80) return p;
      p += 2;
    } else if ((lead & 0xF0) == 0xE0) {
      if (end - p < 3 || (p[1] & 0xC0) != 0x80 || (p[2] & 0xC0) != 0x80) return p;
      if ((lead == 0xE0 && p[1] < 0xA0) || (lead == 0xED && p[1] > 0x9F)) return p;  // overlong, surrogate
      p += 3;
    } else {
      const UTF8Sequence seq = decodeUTF8(p, end);
      if (seq.status != UTF8Status::Ok) return p;
      p += seq.length;
    }
  }
  return p;
}

// ---- Hashing -------------------------------------------------------------------

inline uint64_t loadUpTo8(const uint8_t* p, size_t n) noexcept {
  uint64_t w = 0;
  if (n >= 4) {
    uint32_t a, b;
    std::memcpy(&a, p, 4);
    std::memcpy(&b, p + n - 4, 4);
    w = a | (static_cast<uint64_t>(b) << 32);
  } else if (n > 0) {
    w = p[0] | (static_cast<uint64_t>(p[n / 2]) << 8) | (static_cast<uint64_t>(p[n - 1]) << 16);
  }
  return w;
}

// A fast, well-mixed hash of a byte string (not for adversarial use).
inline uint64_t hashBytes(const uint8_t* p, size_t n) noexcept {
  uint64_t h = 0x9E3779B97F4A7C15ull ^ (n * 0xFF51AFD7ED558CCDull);
  while (n > 8) {
    uint64_t w;
    std::memcpy(&w, p, 8);
    h = (h ^ w) * 0xBF58476D1CE4E5B9ull;
    h ^= h >> 31;
    p += 8;
    n -= 8;
  }
  h = (h ^ loadUpTo8(p, n)) * 0x94D049BB133111EBull;
  h ^= h >> 29;
  h *= 0xBF58476D1CE4E5B9ull;
  return h ^ (h >> 32);
}

}  // namespace pxkit::json::internal
