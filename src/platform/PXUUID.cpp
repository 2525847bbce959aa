#include <glib.h>
#include <pxkit/platform/PXUUID.h>

#include <cctype>
#include <string>

namespace PXUUID {

PXString createString() {
  gchar* random = g_uuid_string_random();
  if (!random) return {};
  std::string text(random);
  g_free(random);
  for (char& c : text) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return PXString(text);
}

}  // namespace PXUUID
