// The JSON codec's error texts, word for word. Callers and tools match on them,
// so they keep their historical spelling, spacing and punctuation exactly
// (the three-word "Expected ..." form has no closing quote: kept on purpose, see docs/compatibility.md).
#pragma once

#include <pxkit/objects/PXString.h>

#include <string_view>

namespace pxkit::json::internal {

// ---- Arguments -----------------------------------------------------------------
inline constexpr const char* kMessageDataArgumentNull = "The jsonData argument is NULL.";
inline constexpr const char* kMessageStringArgumentNull = "The string argument is NULL.";
inline constexpr const char* kMessageStringConversion =
    "An error occurred converting the contents of a NSString to UTF8.";
inline constexpr const char* kMessageInvalidParseOptions = "Invalid parse options.";

// ---- Document structure --------------------------------------------------------
inline constexpr const char* kMessageExpectedContainer = "Expected either '[' or '{'.";
inline constexpr const char* kMessageEndOfBuffer = "Reached the end of the buffer.";
inline constexpr const char* kMessageUnableToParse = "Unable to parse JSON.";
inline constexpr const char* kMessageTrailingText =
    "A valid JSON object was parsed but there were additional non-white-space characters remaining.";
inline constexpr const char* kMessageUnexpectedArrayEnd = "Unexpected ']'.";
inline constexpr const char* kMessageUnexpectedComma = "Unexpected ','.";
inline constexpr const char* kMessageUnexpectedObjectEnd = "Unexpected '}'.";
inline constexpr const char* kMessageUnexpectedValue = "Unexpected value.";
inline constexpr const char* kMessageUnexpectedString = "Unexpected string.";
inline constexpr const char* kMessageExpectedColon = "Expected ':'.";
inline constexpr const char* kMessageUnexpectedToken =
    "Unexpected token, wanted '{', '}', '[', ']', ',', ':', 'true', 'false', 'null', '\"STRING\"', 'NUMBER'.";
inline constexpr const char* kMessageExpectedOne = "Expected %@, not '%*.*s'";
inline constexpr const char* kMessageExpectedTwo = "Expected %@ or %@, not '%*.*s'";
inline constexpr const char* kMessageExpectedThree = "Expected %@, %@, or %@, not '%*.*s";

// The words of the "Expected ..." messages.
inline constexpr const char* kWordValue = "a value";
inline constexpr const char* kWordComma = "a comma";
inline constexpr const char* kWordArrayEnd = "a ']'";
inline constexpr const char* kWordString = "a \"STRING\"";
inline constexpr const char* kWordObjectEnd = "a '}'";

// ---- Numbers -------------------------------------------------------------------
inline constexpr const char* kMessageIntegerMinimum =
    "The value '%s' exceeded the minimum value that could be represented: %lld.";
inline constexpr const char* kMessageIntegerMaximum =
    "The value '%s' exceeded the maximum value that could be represented: %llu.";
inline constexpr const char* kMessageDoubleRange =
    "The value '%s' could not be represented as a 'double' due to %s.";
inline constexpr const char* kMessageNumberNotConsumed =
    "The conversion function did not consume all of the number tokens characters.";
inline constexpr const char* kMessageInvalidNumber = "Invalid number.";

// ---- Strings -------------------------------------------------------------------
inline constexpr const char* kMessageControlCharacter = "Invalid character < 0x20 found in string: 0x%2.2x.";
inline constexpr const char* kMessageIllegalUTF8 = "Illegal UTF8 sequence found in \"\" string.";
inline constexpr const char* kMessageUTF8AtEnd = "End of buffer reached while parsing UTF8 in \"\" string.";
inline constexpr const char* kMessageInvalidEscape = "Invalid escape sequence found in \"\" string.";
inline constexpr const char* kMessageUnicodeEscapeHex =
    "Unexpected character found in \\u Unicode escape sequence.  Found '%c', expected [0-9a-fA-F].";
inline constexpr const char* kMessageSecondSurrogateEscape =
    "Required a second \\u Unicode escape sequence following a surrogate \\u Unicode escape sequence.";
inline constexpr const char* kMessageIllegalUnicodeEscape = "Illegal \\u Unicode escape sequence.";
inline constexpr const char* kMessageInvalidString = "Invalid string.";

// ---- Memory --------------------------------------------------------------------
inline constexpr const char* kMessageHashTableMemory = "Unable to allocate memory for hash table.";
inline constexpr const char* kMessageObjectsArrayMemory = "Unable to resize objects array.";
inline constexpr const char* kMessageTemporaryBufferMemory = "Unable to resize temporary buffer.";
inline constexpr const char* kMessageStateMemory = "Unable to allocate state structure.";
inline constexpr const char* kMessageDataObjectMemory = "Unable to create NSData object";
inline constexpr const char* kMessageStringObjectMemory = "Unable to create NSString object";

// ---- Serializer ----------------------------------------------------------------
inline constexpr const char* kMessageKeyNotString = "Key must be a string object.";
inline constexpr const char* kMessageNotFinite =
    "Floating point values must be finite.  JSON does not support NaN or Infinity.";
inline constexpr const char* kMessageUnknownNumberType =
    "NSNumber conversion error, unknown type.  Type: '%s'";
inline constexpr const char* kMessageUnsupportedClass = "Unable to serialize object class %@.";
inline constexpr const char* kMessageUnsupportedFormatterResult =
    "Unable to serialize object class %@ that was returned by the unsupported class formatter.  Original "
    "object "
    "class was %@.";
inline constexpr const char* kMessageExpectedCollection =
    "Unable to serialize object class %@, expected a NSArray or NSDictionary.";
inline constexpr const char* kMessageExpectedString =
    "Unable to serialize object class %@, expected a NSString.";
inline constexpr const char* kMessageDelegateWithoutSelector =
    "The delegate argument is not NULL, but the selector argument is NULL.";
inline constexpr const char* kMessageDelegateDoesNotRespond =
    "The serializeUnsupportedClassesUsingDelegate: delegate does not respond to the selector argument.";
inline constexpr const char* kMessageTooDeep = "Unable to serialize objects nested deeper than %lu levels.";

// Which tokens a parse state accepts, for the "Expected ..." messages.
enum AcceptBits : unsigned {
  kAcceptValue = 1u << 0,  // a value (or, for a dictionary, a key)
  kAcceptComma = 1u << 1,
  kAcceptEnd = 1u << 2,  // the container's closing bracket
};

// "Expected a value or a ']', not '}'": the accepted words in the order value,
// comma, end, and the offending token's text. `valueWord` and `endWord` name the
// container's key or value and its closing bracket.
PXString composeExpectedMessage(unsigned accepted, const char* valueWord, const char* endWord,
                                std::string_view token);

}  // namespace pxkit::json::internal
