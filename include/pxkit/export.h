// PXKit — symbol visibility.
//
// libpxkit is built with hidden visibility; only declarations marked
// PXKIT_EXPORT are part of the shared library's interface.
#pragma once

#if defined(PXKIT_BUILDING)
#define PXKIT_EXPORT __attribute__((visibility("default")))
#else
#define PXKIT_EXPORT
#endif
