// Building parsed dictionaries without a second pass.
//
// The decoder collects a container's entries on its own stack and moves the
// finished run into a dictionary packed with them. The entries arrive with
// their keys already made unique (the decoder removes repeated keys itself), so
// they are taken as they are instead of inserted one by one.
#pragma once

#include <pxkit/objects/PXDictionary.h>

namespace pxkit::json::internal {

// Parsed dictionaries are packed with their entries in one allocation by the
// dictionaries' own factories for trusted entries; these only open them here.
struct ParsedDictionary : PXDictionary {
  using PXDictionary::dictionaryByTakingTrustedEntries;
};
struct ParsedMutableDictionary : PXMutableDictionary {
  using PXMutableDictionary::dictionaryByTakingTrustedEntries;
};

}  // namespace pxkit::json::internal
