// PXKit — the kit's version.
#pragma once

#include <pxkit/export.h>

#define PXKIT_VERSION_STRING "0.1.0"

// The version of the linked library, "major.minor.patch".
PXKIT_EXPORT const char* PXKitVersionString();
