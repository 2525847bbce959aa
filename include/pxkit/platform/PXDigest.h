// PXKit — message digests as lower-case hexadecimal text.
//
//   PXDigest::md5Hex("abc")      // "900150983cd24fb0d6963f7d28e17f72"
//
// Thread safety: pure functions.
#pragma once

#include <pxkit/export.h>
#include <pxkit/objects/PXString.h>

#include <string_view>

namespace PXDigest {

// MD5 (RFC 1321) of the bytes: 32 hexadecimal digits, each byte as "%02x" in digest order.
PXKIT_EXPORT PXString md5Hex(std::string_view bytes);
// SHA-1: 40 hexadecimal digits.
PXKIT_EXPORT PXString sha1Hex(std::string_view bytes);
// SHA-256: 64 hexadecimal digits.
PXKIT_EXPORT PXString sha256Hex(std::string_view bytes);

}  // namespace PXDigest
