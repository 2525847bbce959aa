// PXKit — the JSON serializer: the kit's values into UTF-8 JSON text.
//
// Dictionaries (string keys only), arrays, strings, numbers, null and booleans
// (written true and false) are written as JSON. Integers are written exactly,
// doubles with "%.17g" (so they read back bit for bit); NaN and infinities are
// refused. Dictionaries are written in their own key order. Any other value
// (dates, data, other objects) is refused unless an unsupported-class formatter
// turns it into a supported one.
//
//   PXValue doc = PXDictionary::dictionaryWithEntries({{"name", "Ada"}, {"langs", list}});
//   PXString text = JSONString(doc);                         // {"name":"Ada","langs":[...]}
//   PXErrorRef error;
//   PXRef<PXData> bytes = JSONDataWithOptions(doc, kPXJSONSerializeOptionPretty, &error);
//   PXString quoted = JSONStringWithOptionsIncludeQuotes("a\tb", kPXJSONSerializeOptionNone,
//                                                        /*includeQuotes=*/true);   // "a\tb" escaped
//   // Dates as seconds since 1970:
//   JSONDataWithOptions(doc, 0, [](const PXValue& v) -> PXValue {
//     return v.isDate() ? PXValue(v.dateValue().timeIntervalSince1970()) : PXValue();
//   }, &error);
//
// Failures return an empty result and, when `error` is given, an error in
// kPXJSONErrorDomain, code -1, whose localized description says what was wrong.
// The forms without an error parameter simply return an empty result.
//
// Thread safety: pure functions of their arguments; any thread. A value being
// written must not be mutated meanwhile.
#pragma once

#include <pxkit/export.h>
#include <pxkit/json/JSONCodec.h>
#include <pxkit/objects/PXData.h>
#include <pxkit/objects/PXError.h>
#include <pxkit/objects/PXValue.h>

#include <functional>
#include <string_view>

// Turns a value the serializer cannot write into one it can (or into an absent
// value, which fails). Called on the serializing thread, once per unsupported value.
using JSONUnsupportedClassFormatter = std::function<PXValue(const PXValue& object)>;

// The delegate form of the formatter: an object asked by the name of one of its
// formatting operations ("selector"). Not retained; it must outlive the call.
class PXKIT_EXPORT JSONSerializerDelegate {
 public:
  virtual ~JSONSerializerDelegate();
  // Whether this delegate has the operation named `selector`.
  virtual bool respondsToSelector(std::string_view selector) const = 0;
  // Runs the operation named `selector` on `object` and returns its result.
  // Called only for selectors this delegate responds to.
  virtual PXValue performSelector(std::string_view selector, const PXValue& object) = 0;
};

// ---- Arrays and dictionaries ---------------------------------------------------
// `collection` must be an array or a dictionary; anything else fails with
// "Unable to serialize object class %@, expected a NSArray or NSDictionary.".
[[nodiscard]] PXKIT_EXPORT PXRef<PXData> JSONDataWithOptions(const PXValue& collection,
                                                             JSONSerializeOptionFlags serializeOptions,
                                                             PXErrorRef* error = nullptr);
[[nodiscard]] PXKIT_EXPORT PXString JSONStringWithOptions(const PXValue& collection,
                                                          JSONSerializeOptionFlags serializeOptions,
                                                          PXErrorRef* error = nullptr);
// Compact, errors dropped.
[[nodiscard]] PXKIT_EXPORT PXRef<PXData> JSONData(const PXValue& collection);
[[nodiscard]] PXKIT_EXPORT PXString JSONString(const PXValue& collection);

// With a delegate that formats unsupported values through its operation `selector`.
// A null delegate means no formatter. A delegate with a null selector fails with
// "The delegate argument is not NULL, but the selector argument is NULL."; one that
// does not respond to the selector with "The serializeUnsupportedClassesUsingDelegate:
// delegate does not respond to the selector argument.".
[[nodiscard]] PXKIT_EXPORT PXRef<PXData> JSONDataWithOptions(const PXValue& collection,
                                                             JSONSerializeOptionFlags serializeOptions,
                                                             JSONSerializerDelegate* delegate,
                                                             const char* selector,
                                                             PXErrorRef* error = nullptr);
[[nodiscard]] PXKIT_EXPORT PXString JSONStringWithOptions(const PXValue& collection,
                                                          JSONSerializeOptionFlags serializeOptions,
                                                          JSONSerializerDelegate* delegate,
                                                          const char* selector, PXErrorRef* error = nullptr);

// With a formatter callback (an empty one means no formatter).
[[nodiscard]] PXKIT_EXPORT PXRef<PXData> JSONDataWithOptions(const PXValue& collection,
                                                             JSONSerializeOptionFlags serializeOptions,
                                                             const JSONUnsupportedClassFormatter& block,
                                                             PXErrorRef* error = nullptr);
[[nodiscard]] PXKIT_EXPORT PXString JSONStringWithOptions(const PXValue& collection,
                                                          JSONSerializeOptionFlags serializeOptions,
                                                          const JSONUnsupportedClassFormatter& block,
                                                          PXErrorRef* error = nullptr);

// ---- Strings -------------------------------------------------------------------
// Writes the string alone, escaped, with or without the surrounding quotes.
// Anything but a string fails with "Unable to serialize object class %@, expected a NSString.".
[[nodiscard]] PXKIT_EXPORT PXRef<PXData> JSONDataWithOptionsIncludeQuotes(
    const PXValue& string, JSONSerializeOptionFlags serializeOptions, bool includeQuotes,
    PXErrorRef* error = nullptr);
[[nodiscard]] PXKIT_EXPORT PXString
JSONStringWithOptionsIncludeQuotes(const PXValue& string, JSONSerializeOptionFlags serializeOptions,
                                   bool includeQuotes, PXErrorRef* error = nullptr);
