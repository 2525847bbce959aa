// PXKit — random UUIDs in the canonical text form.
//
//   PXString id = PXUUID::createString();   // "6F9619FF-8B86-D011-B42D-00C04FC964FF"
//
// Thread safety: any thread.
#pragma once

#include <pxkit/export.h>
#include <pxkit/objects/PXString.h>

namespace PXUUID {

// A new random (version 4) UUID: 36 characters, upper-case hexadecimal, hyphens
// at 8-4-4-4-12. Absent only if no random UUID could be made.
PXKIT_EXPORT PXString createString();

}  // namespace PXUUID
