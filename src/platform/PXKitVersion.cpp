#include <pxkit/PXKit.h>

const char* PXKitVersionString() {
  return PXKIT_VERSION_STRING;
}
