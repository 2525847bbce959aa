#include <glib.h>
#include <pxkit/platform/PXDigest.h>

namespace {

PXString hexDigest(GChecksumType type, std::string_view bytes) {
  GChecksum* checksum = g_checksum_new(type);
  g_checksum_update(checksum, reinterpret_cast<const guchar*>(bytes.data()),
                    static_cast<gssize>(bytes.size()));
  PXString hex(g_checksum_get_string(checksum));  // lower-case hexadecimal
  g_checksum_free(checksum);
  return hex;
}

}  // namespace

namespace PXDigest {

PXString md5Hex(std::string_view bytes) {
  return hexDigest(G_CHECKSUM_MD5, bytes);
}
PXString sha1Hex(std::string_view bytes) {
  return hexDigest(G_CHECKSUM_SHA1, bytes);
}
PXString sha256Hex(std::string_view bytes) {
  return hexDigest(G_CHECKSUM_SHA256, bytes);
}

}  // namespace PXDigest
