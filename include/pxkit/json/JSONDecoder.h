// PXKit — the JSON decoder: UTF-8 JSON text into the kit's values.
//
// A JSONDecoder turns a JSON document whose top level is an array or an object
// into PXArray / PXDictionary values (or, in the mutable forms, PXMutableArray /
// PXMutableDictionary all the way down). Strings become string values, integers
// 64-bit integers (signed when negative, unsigned otherwise), numbers with a
// fraction or exponent doubles (correctly rounded), true/false booleans and null
// the null value. Dictionaries keep the document's key order; a repeated key
// keeps its first place and takes the last value.
//
//   PXErrorRef error;
//   auto decoder = JSONDecoder::decoder();                      // strict
//   PXValue doc = decoder->objectWithUTF8String(text, strlen(text), &error);
//   if (!doc) {
//     puts(error->localizedDescription().c_str());              // "Expected ':'."
//   } else if (auto list = doc.arrayValue()) {
//     ...
//   }
//   PXValue lenient = objectFromJSONStringWithParseOptions("[1] // done", kPXJSONParseOptionComments);
//
// Failures return an absent value and, when `error` is given, an error in
// kPXJSONErrorDomain (code -1) with kPXJSONAtIndexKey / kPXJSONLineNumberKey.
// Errors about a missing argument carry only their description.
//
// Thread safety: a decoder keeps reusable buffers and a cache of recent strings,
// so one decoder is used by one thread at a time; use one decoder per thread (or
// the free functions below, which make their own). Results are ordinary values
// that any thread may read.
#pragma once

#include <pxkit/export.h>
#include <pxkit/json/JSONCodec.h>
#include <pxkit/objects/PXData.h>
#include <pxkit/objects/PXError.h>
#include <pxkit/objects/PXObject.h>

#include <cstddef>
#include <memory>

namespace pxkit::json::internal {
struct DecoderState;
}

class PXKIT_EXPORT JSONDecoder : public PXObject {
  PX_DECLARE_CLASS(JSONDecoder)
 public:
  // A strict decoder (options 0).
  static PXRef<JSONDecoder> decoder();
  // A decoder with the given kPXJSONParseOption... bits. Raises PXException
  // kPXInvalidArgumentException "Invalid parse options." for any bit outside
  // kPXJSONParseOptionValidFlags (that is, 16 or more).
  static PXRef<JSONDecoder> decoderWithParseOptions(JSONParseOptionFlags parseOptionFlags);

  ~JSONDecoder() override;

  JSONParseOptionFlags parseOptionFlags() const noexcept { return parseOptionFlags_; }

  // ---- Immutable results -------------------------------------------------
  // Parses UTF-8 bytes. A null buffer fails with "The jsonData argument is NULL.".
  [[nodiscard]] PXValue objectWithData(const PXData* jsonData, PXErrorRef* error = nullptr);
  [[nodiscard]] PXValue objectWithData(const PXRef<PXData>& jsonData, PXErrorRef* error = nullptr) {
    return objectWithData(jsonData.get(), error);
  }
  // Parses `length` bytes at `string` (no terminator needed; NUL bytes are ordinary
  // input). A null pointer fails with "The string argument is NULL.".
  [[nodiscard]] PXValue objectWithUTF8String(const char* string, size_t length, PXErrorRef* error = nullptr);

  // ---- Mutable results ---------------------------------------------------
  // As above, with every array and dictionary of the result mutable.
  [[nodiscard]] PXValue mutableObjectWithData(const PXData* jsonData, PXErrorRef* error = nullptr);
  [[nodiscard]] PXValue mutableObjectWithData(const PXRef<PXData>& jsonData, PXErrorRef* error = nullptr) {
    return mutableObjectWithData(jsonData.get(), error);
  }
  [[nodiscard]] PXValue mutableObjectWithUTF8String(const char* string, size_t length,
                                                    PXErrorRef* error = nullptr);

  // ---- Older names, same as the immutable forms --------------------------
  [[nodiscard]] PXValue parseJSONData(const PXData* jsonData, PXErrorRef* error = nullptr) {
    return objectWithData(jsonData, error);
  }
  [[nodiscard]] PXValue parseJSONData(const PXRef<PXData>& jsonData, PXErrorRef* error = nullptr) {
    return objectWithData(jsonData.get(), error);
  }
  [[nodiscard]] PXValue parseUTF8String(const char* string, size_t length, PXErrorRef* error = nullptr) {
    return objectWithUTF8String(string, length, error);
  }

  // Empties the cache of recently decoded strings (which lets equal long strings
  // of successive documents share storage). Results never depend on it.
  void clearCache();

 private:
  explicit JSONDecoder(JSONParseOptionFlags parseOptionFlags);
  PXValue decode(const char* bytes, size_t length, bool mutableCollections, PXErrorRef* error);

  JSONParseOptionFlags parseOptionFlags_;
  std::unique_ptr<pxkit::json::internal::DecoderState> state_;
};

// ---- Decoding strings and byte buffers -----------------------------------------
// Each call makes a decoder with the given options (none given: strict) and parses
// with it. An absent string fails with "An error occurred converting the contents
// of a NSString to UTF8."; a null buffer with "The jsonData argument is NULL.".
// Any thread.
[[nodiscard]] PXKIT_EXPORT PXValue objectFromJSONString(const PXString& string);
[[nodiscard]] PXKIT_EXPORT PXValue objectFromJSONStringWithParseOptions(const PXString& string,
                                                                        JSONParseOptionFlags parseOptionFlags,
                                                                        PXErrorRef* error = nullptr);
[[nodiscard]] PXKIT_EXPORT PXValue mutableObjectFromJSONString(const PXString& string);
[[nodiscard]] PXKIT_EXPORT PXValue mutableObjectFromJSONStringWithParseOptions(
    const PXString& string, JSONParseOptionFlags parseOptionFlags, PXErrorRef* error = nullptr);

[[nodiscard]] PXKIT_EXPORT PXValue objectFromJSONData(const PXData* data);
[[nodiscard]] PXKIT_EXPORT PXValue objectFromJSONDataWithParseOptions(const PXData* data,
                                                                      JSONParseOptionFlags parseOptionFlags,
                                                                      PXErrorRef* error = nullptr);
[[nodiscard]] PXKIT_EXPORT PXValue mutableObjectFromJSONData(const PXData* data);
[[nodiscard]] PXKIT_EXPORT PXValue mutableObjectFromJSONDataWithParseOptions(
    const PXData* data, JSONParseOptionFlags parseOptionFlags, PXErrorRef* error = nullptr);
[[nodiscard]] inline PXValue objectFromJSONData(const PXRef<PXData>& data) {
  return objectFromJSONData(data.get());
}
[[nodiscard]] inline PXValue objectFromJSONDataWithParseOptions(const PXRef<PXData>& data,
                                                                JSONParseOptionFlags parseOptionFlags,
                                                                PXErrorRef* error = nullptr) {
  return objectFromJSONDataWithParseOptions(data.get(), parseOptionFlags, error);
}
[[nodiscard]] inline PXValue mutableObjectFromJSONData(const PXRef<PXData>& data) {
  return mutableObjectFromJSONData(data.get());
}
[[nodiscard]] inline PXValue mutableObjectFromJSONDataWithParseOptions(const PXRef<PXData>& data,
                                                                       JSONParseOptionFlags parseOptionFlags,
                                                                       PXErrorRef* error = nullptr) {
  return mutableObjectFromJSONDataWithParseOptions(data.get(), parseOptionFlags, error);
}
