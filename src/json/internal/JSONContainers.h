// Building parsed arrays and dictionaries without a second pass.
//
// The decoder collects a container's elements on its own stack and hands the
// finished vector over in one move. Dictionary entries arrive with their keys
// already made unique (the decoder removes repeated keys itself), so the
// dictionaries below take the vector as it is instead of inserting entry by
// entry. They are the ordinary dictionary classes in every observable way: same
// class object, same behaviour, same mutability.
#pragma once

#include <pxkit/platform/PXDictionary.h>

#include <utility>
#include <vector>

namespace pxkit::json::internal {

class AdoptedDictionary final : public PXDictionary {
 public:
  // `entries` must not repeat a key.
  explicit AdoptedDictionary(std::vector<Entry>&& entries) noexcept
      : PXDictionary(std::move(entries), false) {}
};

class AdoptedMutableDictionary final : public PXMutableDictionary {
 public:
  // `entries` must not repeat a key.
  explicit AdoptedMutableDictionary(std::vector<Entry>&& entries) noexcept { entries_ = std::move(entries); }
};

}  // namespace pxkit::json::internal
