// The version ordering of rules' comparison options.
//
// Thread safety: pure.
#pragma once

#include <pxkit/objects/PXString.h>
#include <pxkit/objects/PXValue.h>

namespace pxkit::rules {

// `version` against `other`, dotted components compared as the kit's string
// tools compare versions. An absent `other` compares the same.
PXComparisonResult compareVersions(const PXString& version, const PXString& other);

}  // namespace pxkit::rules
