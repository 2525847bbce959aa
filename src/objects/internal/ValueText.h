// Text and hashing helpers shared by the value and container sources.
#pragma once

#include <pxkit/objects/PXValue.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace pxkit::internal {

// The hash of a string's bytes; a string value hashes to exactly this, so a
// dictionary can look up a key given as bytes without building a value.
size_t hashStringBytes(std::string_view bytes) noexcept;

// The shortest text that reads back as `value`, printed the way "%g" prints
// with at least 15 significant digits: 0.1 → "0.1", 3.0 → "3", 1e20 → "1e+20".
void appendShortestDouble(std::string& out, double value);

// "2001-01-01 00:00:00 +0000" for seconds since the reference date, in UTC.
void appendDateDescription(std::string& out, double sinceReferenceDate);

// The property-list style text of a value at an indentation depth (4 spaces a
// level): containers nest, other values print their description, quoted when
// they contain anything but ASCII letters and digits.
void appendPropertyListText(std::string& out, const PXValue& value, unsigned depth);

}  // namespace pxkit::internal
