// PXKit — the property-list file format (XML).
//
// A property list is a tree of dictionaries (string keys), arrays, strings,
// integers (signed or unsigned 64-bit), reals, booleans, dates and data. The
// kit keeps every preferences file in this format (docs/file-formats.md):
//
//   <?xml version="1.0" encoding="UTF-8"?>
//   <plist version="1.0">
//   <dict>
//   	<key>PXMetricsDisabled</key>
//   	<true/>
//   	<key>Launched</key>
//   	<date>2001-01-01T00:00:00Z</date>
//   </dict>
//   </plist>
//
//   PXErrorRef error;
//   PXRef<PXData> bytes = PXPropertyList::dataWithPropertyList(value, &error);
//   PXValue back = PXPropertyList::propertyListWithData(*bytes, PXPropertyListMutability::Immutable, &error);
//   // back.isEqual(value): reals, dates and 64-bit integers come back bit for bit.
//
// Reading never trusts its input: malformed text, unknown elements, numbers
// out of range, bad base64 or nesting deeper than kPXPropertyListMaxDepth give
// an absent value and an error in kPXPropertyListErrorDomain, never a crash.
//
// Thread safety: pure functions; any thread.
#pragma once

#include <pxkit/export.h>
#include <pxkit/objects/PXData.h>
#include <pxkit/objects/PXError.h>
#include <pxkit/objects/PXValue.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

// Error domain of reading and writing property lists.
PXKIT_EXPORT extern const char* const kPXPropertyListErrorDomain;  // "PXPropertyListErrorDomain"

// Codes in kPXPropertyListErrorDomain.
enum PXPropertyListErrorCode : int64_t {
  PXPropertyListReadCorruptError = 1,  // the text is not a well-formed property list
  PXPropertyListReadTooLargeError =
      2,  // longer than kPXPropertyListMaxLength or deeper than kPXPropertyListMaxDepth
  PXPropertyListWriteInvalidError =
      3,  // the value holds something a property list cannot (null, other objects...)
};

// How containers (and data) read from a file come back.
enum class PXPropertyListMutability : uint8_t {
  Immutable,                   // PXArray, PXDictionary, PXData
  MutableContainers,           // PXMutableArray, PXMutableDictionary; data immutable
  MutableContainersAndLeaves,  // as above, and data as PXMutableData
};

// Limits on what a property list may be, checked when reading and when writing.
inline constexpr size_t kPXPropertyListMaxDepth = 512;                 // nested arrays/dictionaries
inline constexpr size_t kPXPropertyListMaxLength = 64u * 1024 * 1024;  // bytes of XML text

class PXKIT_EXPORT PXPropertyList {
 public:
  PXPropertyList() = delete;

  // The XML text of `plist`, UTF-8, ending in a newline. Empty (and `error` set,
  // code PXPropertyListWriteInvalidError) when the value, or anything in it, is
  // not a property-list value: absent, null, an object other than an array,
  // dictionary or data, a dictionary key that is not a string, a string that is
  // not valid UTF-8 or holds a NUL byte, a date that is not finite, or nesting
  // deeper than kPXPropertyListMaxDepth (which also stops cycles).
  [[nodiscard]] static PXRef<PXData> dataWithPropertyList(const PXValue& plist, PXErrorRef* error = nullptr);
  // The same text as a string; "" on failure.
  [[nodiscard]] static std::string XMLStringWithPropertyList(const PXValue& plist,
                                                             PXErrorRef* error = nullptr);

  // The value of the XML text; absent and `error` set (PXPropertyListReadCorruptError
  // with line and column in the description, or PXPropertyListReadTooLargeError) when
  // the text is not a property list. Accepts a <plist> root or a bare value element,
  // comments, processing instructions, a DOCTYPE and CDATA sections.
  [[nodiscard]] static PXValue propertyListWithData(
      const PXData& data, PXPropertyListMutability mutability = PXPropertyListMutability::Immutable,
      PXErrorRef* error = nullptr);
  [[nodiscard]] static PXValue propertyListWithString(
      std::string_view text, PXPropertyListMutability mutability = PXPropertyListMutability::Immutable,
      PXErrorRef* error = nullptr);

  // Whether dataWithPropertyList would accept `plist`.
  static bool isValidPropertyList(const PXValue& plist);

  // The date text of the format, "2001-01-01T00:00:00Z" (UTC; a fraction of a second
  // is written only when the date has one, with as many digits as it takes to
  // read the same double back). Empty for dates that are not finite or beyond
  // about three million years from the reference date.
  static std::string ISO8601StringFromDate(PXDate date);
  // Reads that text back; false (and `out` untouched) when it is not one.
  [[nodiscard]] static bool dateFromISO8601String(std::string_view text, PXDate* out);
};
