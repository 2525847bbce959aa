// PXKit — the JSON codec's shared vocabulary: options, error domain, error keys, limits.
//
// The codec is the kit's own JSON reader (JSONDecoder.h) and writer
// (JSONSerializer.h). This header holds what both sides and their callers share.
//
//   auto decoder = JSONDecoder::decoderWithParseOptions(kPXJSONParseOptionComments |
//                                                       kPXJSONParseOptionPermitTextAfterValidJSON);
//   PXErrorRef error;
//   PXValue doc = decoder->objectWithUTF8String(text, length, &error);
//   if (!doc) {
//     // error->domain() == kPXJSONErrorDomain, error->code() == -1
//     uint64_t at = error->userInfo()->objectForKey(kPXJSONAtIndexKey).unsignedLongLongValue();
//   }
//
// Thread safety: constants only.
#pragma once

#include <pxkit/export.h>

#include <cstddef>

// ---- Parse options (bit set) -------------------------------------------------
using JSONParseOptionFlags = unsigned;

// Strict RFC 8259 JSON with a top-level array or object.
inline constexpr JSONParseOptionFlags kPXJSONParseOptionStrict = 0;
// "/* ... */" and "// ..." comments wherever white space may stand.
inline constexpr JSONParseOptionFlags kPXJSONParseOptionComments = 1u << 0;
// U+0085, U+2028 and U+2029 are line breaks (white space, and counted in line numbers).
inline constexpr JSONParseOptionFlags kPXJSONParseOptionUnicodeNewlines = 1u << 1;
// Ill-formed UTF-8 and unpaired surrogate escapes in strings become U+FFFD instead of errors.
inline constexpr JSONParseOptionFlags kPXJSONParseOptionLooseUnicode = 1u << 2;
// Text after the first complete value is ignored instead of being an error.
inline constexpr JSONParseOptionFlags kPXJSONParseOptionPermitTextAfterValidJSON = 1u << 3;
// Every defined bit; a decoder refuses anything outside it.
inline constexpr JSONParseOptionFlags kPXJSONParseOptionValidFlags = 0xFu;

// ---- Serialize options (bit set) ---------------------------------------------
using JSONSerializeOptionFlags = unsigned;

inline constexpr JSONSerializeOptionFlags kPXJSONSerializeOptionNone = 0;
// Line breaks and two-space indentation; "key": value.
inline constexpr JSONSerializeOptionFlags kPXJSONSerializeOptionPretty = 1u << 0;
// Every character outside ASCII written as a \u escape (astral characters as a surrogate pair).
inline constexpr JSONSerializeOptionFlags kPXJSONSerializeOptionEscapeUnicode = 1u << 1;

// ---- Errors ------------------------------------------------------------------
// Every codec error has this domain and code -1, and its message as localized description.
PXKIT_EXPORT extern const char* const kPXJSONErrorDomain;  // "PXJSONErrorDomain"
// Parse errors also carry, as unsigned numbers, the byte index of the failing token
// and its line number (1 for the first line).
PXKIT_EXPORT extern const char* const kPXJSONAtIndexKey;     // "PXJSONAtIndexKey"
PXKIT_EXPORT extern const char* const kPXJSONLineNumberKey;  // "PXJSONLineNumberKey"

// ---- Limits ------------------------------------------------------------------
// The deepest nesting of arrays and objects the codec reads or writes. A document
// nested deeper fails to parse ("Unable to parse JSON."); a value nested deeper
// (or containing itself) fails to serialize.
inline constexpr size_t kPXJSONMaxDepth = 512;
