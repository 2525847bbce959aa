// PXKit — the kit's single entry point for JSON.
//
// PXJSONSerialization turns JSON-representable values (strings, numbers,
// booleans, null, arrays and dictionaries, nested freely) into UTF-8 JSON bytes
// and back. It forwards to the platform's JSON service when the process has one
// (a class registered under the name "NSJSONSerialization"; Linux has none) and
// otherwise uses the kit's own codec (JSONDecoder / JSONSerializer). The choice
// is made once per process.
//
//   PXErrorRef error;
//   PXRef<PXData> body = PXJSONSerialization::dataWithJSONObject(papercuts, 0, &error);
//   PXValue receipt = PXJSONSerialization::JSONObjectWithData(responseBytes, 0, &error);
//   PXString text = PXJSONSerialization::JSONify(value);   // absent when not representable
//
// The built-in codec reads leniently: comments, Unicode line breaks, ill-formed
// UTF-8 (replaced) and text after the document are accepted.
//
// Thread safety: every operation may be called from any thread; the only shared
// state is the availability flag, computed once.
#pragma once

#include <pxkit/export.h>
#include <pxkit/objects/PXData.h>
#include <pxkit/objects/PXError.h>
#include <pxkit/objects/PXValue.h>

#include <cstdint>
#include <iosfwd>

// The kit's own error domain, shared by its networking and JSON operations.
PXKIT_EXPORT extern const char* const kPXKitErrorDomain;  // "PXKitError"

// Read options (bit set). The built-in codec honours the first two, both meaning
// mutable arrays and dictionaries in the result.
inline constexpr unsigned kPXJSONReadingMutableContainers = 1u << 0;
inline constexpr unsigned kPXJSONReadingMutableLeaves = 1u << 1;
inline constexpr unsigned kPXJSONReadingAllowFragments = 1u << 2;
// Write options (bit set). Only pretty printing has a meaning for the built-in codec.
inline constexpr unsigned kPXJSONWritingPrettyPrinted = 1u << 0;

class PXKIT_EXPORT PXJSONSerialization {
 public:
  PXJSONSerialization() = delete;

  // Whether the platform's JSON service exists; looked up once, by name, on first
  // use (thread-safe), and never again. Always false on Linux.
  static bool isNSJSONSerializationAvailable();

  // Whether `object` can be written: strings, numbers, null, and arrays and
  // dictionaries whose elements (and keys) are all valid. Absent values, dates,
  // data and other objects are not; neither is nesting beyond kPXJSONMaxDepth.
  static bool isValidJSONObject(const PXValue& object);

  // JSON bytes for `object`. With the built-in codec: a string is written quoted
  // and escaped, a number as its decimal text ("3.5", a boolean true as "1"), an
  // array or dictionary as a document; a top-level null or any other value gives
  // none and leaves `error` untouched. Codec errors come through `error`.
  [[nodiscard]] static PXRef<PXData> dataWithJSONObject(const PXValue& object, unsigned options,
                                                        PXErrorRef* error = nullptr);

  // The value of a JSON document; none on failure, with the codec's error
  // (domain "PXJSONErrorDomain"). The built-in codec reads with every leniency and
  // makes mutable containers when either mutable option is given.
  [[nodiscard]] static PXValue JSONObjectWithData(const PXData* data, unsigned options,
                                                  PXErrorRef* error = nullptr);
  [[nodiscard]] static PXValue JSONObjectWithData(const PXRef<PXData>& data, unsigned options,
                                                  PXErrorRef* error = nullptr) {
    return JSONObjectWithData(data.get(), options, error);
  }

  // The compact JSON text of a valid object, or absent (invalid, or not writable).
  [[nodiscard]] static PXString JSONify(const PXValue& object);

  // Streams are the platform service's alone. With the built-in codec both fail
  // at once: 0 / none, and (when asked) an error in kPXKitErrorDomain with code -1
  // (writing) or -2 (reading).
  [[nodiscard]] static int64_t writeJSONObject(const PXValue& object, std::ostream& stream, unsigned options,
                                               PXErrorRef* error = nullptr);
  [[nodiscard]] static PXValue JSONObjectWithStream(std::istream& stream, unsigned options,
                                                    PXErrorRef* error = nullptr);
};

// What a platform JSON service implements: a class registered under the name
// "NSJSONSerialization" with a factory, whose instances are also this interface.
// PXJSONSerialization makes one instance on first use and forwards to it.
class PXKIT_EXPORT PXJSONPlatformService {
 public:
  virtual ~PXJSONPlatformService();
  virtual bool isValidJSONObject(const PXValue& object) = 0;
  virtual PXRef<PXData> dataWithJSONObject(const PXValue& object, unsigned options, PXErrorRef* error) = 0;
  virtual PXValue JSONObjectWithData(const PXData* data, unsigned options, PXErrorRef* error) = 0;
  virtual int64_t writeJSONObject(const PXValue& object, std::ostream& stream, unsigned options,
                                  PXErrorRef* error) = 0;
};
