#include <pxkit/foundation/PXDateTools.h>
#include <pxkit/foundation/PXPropertyTools.h>
#include <pxkit/net/PXJSONRequest.h>
#include <pxkit/net/PXJSONSerialization.h>
#include <pxkit/platform/PXRunLoop.h>

#include <charconv>
#include <optional>
#include <string_view>
#include <utility>

const char* const kPXJSONRequestContentType = "application/json";

PX_DEFINE_CLASS(PXJSONRequest, PXWebRequest, nullptr)

namespace {

// The recorded timeout of the started requests, in seconds (never applied).
constexpr double kStartedRequestTimeout = 60.0;

// ---- Decimal numbers ------------------------------------------------------------------

// `text` as a number when the whole of it is a decimal number: an optional
// sign, digits with an optional fraction (a digit on at least one side of the
// point), and an optional exponent. Integers stay integers while they fit in 64
// bits; the rest become doubles. Locale-independent.
std::optional<PXValue> decimalNumber(std::string_view text) {
  size_t i = 0;
  const size_t n = text.size();
  bool negative = false;
  if (i < n && (text[i] == '+' || text[i] == '-')) negative = text[i++] == '-';
  const size_t digitsBegin = i;
  auto digits = [&] {
    const size_t from = i;
    while (i < n && text[i] >= '0' && text[i] <= '9') ++i;
    return i - from;
  };
  size_t mantissaDigits = digits();
  bool integral = true;
  if (i < n && text[i] == '.') {
    ++i;
    mantissaDigits += digits();
    integral = false;
  }
  if (mantissaDigits == 0) return std::nullopt;
  if (i < n && (text[i] == 'e' || text[i] == 'E')) {
    ++i;
    if (i < n && (text[i] == '+' || text[i] == '-')) ++i;
    if (digits() == 0) return std::nullopt;
    integral = false;
  }
  if (i != n) return std::nullopt;

  // std::from_chars takes a minus sign but no plus sign.
  const std::string_view unsignedText = text.substr(digitsBegin);
  const char* end = text.data() + n;
  if (integral) {
    if (!negative) {
      uint64_t value = 0;
      if (std::from_chars(unsignedText.data(), end, value).ec == std::errc()) {
        return value <= static_cast<uint64_t>(INT64_MAX) ? PXValue(static_cast<int64_t>(value))
                                                         : PXValue(value);
      }
    } else {
      int64_t value = 0;
      if (std::from_chars(text.data(), end, value).ec == std::errc()) return PXValue(value);
    }
    // Too large for 64 bits: a double, like any other number.
  }
  double value = 0;
  const auto [ptr, ec] = std::from_chars(unsignedText.data(), end, value);
  if (ec != std::errc() || ptr != end) return std::nullopt;
  return PXValue(negative ? -value : value);
}

// ---- Property kinds ---------------------------------------------------------------------

enum class PropertyKind { Numeric, ClassNamed, BareObject, Other };

// The kind of a property by its type code; `className` receives the name
// between the quotes of an object type that has one.
PropertyKind kindOfType(std::string_view typeCode, std::string_view* className) {
  if (typeCode.empty()) return PropertyKind::Other;
  if (typeCode.size() == 1 && std::string_view("cdfilqsBCILQS").find(typeCode[0]) != std::string_view::npos)
    return PropertyKind::Numeric;
  if (typeCode[0] != '@') return PropertyKind::Other;
  // The type attribute "T@\"Name\"" has at least four characters when a name is given.
  if (typeCode.size() >= 3 && typeCode[1] == '"' && typeCode.back() == '"') {
    *className = typeCode.substr(2, typeCode.size() - 3);
    return PropertyKind::ClassNamed;
  }
  return PropertyKind::BareObject;
}

enum class ValueClass { String, Number, Date, Other };

// The value kinds the conversions know, by the class names that stand for
// them in type codes (the kit's value kinds are not classes of their own).
ValueClass valueClassNamed(std::string_view name) {
  if (name == "NSString" || name == "NSMutableString" || name == "PXString") return ValueClass::String;
  if (name == "NSNumber" || name == "NSDecimalNumber") return ValueClass::Number;
  if (name == "NSDate" || name == "PXDate") return ValueClass::Date;
  return ValueClass::Other;  // a kit class or an unknown name: the value is taken as it is
}

// `value` converted for a property of `kind`; nothing when it is skipped or
// cannot be converted.
std::optional<PXValue> convertedValue(const PXValue& value, PropertyKind kind, std::string_view className) {
  switch (kind) {
    case PropertyKind::Numeric:
      if (value.isNumber()) return value;
      if (value.isString()) return decimalNumber(value.stringValue());
      return std::nullopt;
    case PropertyKind::ClassNamed:
      switch (valueClassNamed(className)) {
        case ValueClass::String:
          if (value.isNumber()) return PXValue(value.description());
          return value;
        case ValueClass::Number:
          if (value.isString()) return decimalNumber(value.stringValue());
          return value;
        case ValueClass::Date:
          if (value.isString()) {
            std::optional<PXDate> date = PXDateTools::dateFromRFC3339DateString(value.stringValue());
            if (!date) date = PXDateTools::dateFromISO8601DateString(value.stringValue());
            if (!date) return std::nullopt;
            return PXValue(*date);
          }
          return value;
        case ValueClass::Other:
          return value;
      }
      return value;
    case PropertyKind::BareObject:
      return value;
    case PropertyKind::Other:
      return std::nullopt;
  }
  return std::nullopt;
}

// A started POST of this class: what startedPOSTRequestForURL does, making a
// PXJSONRequest.
PXRef<PXJSONRequest> startedPOST(PXString url, PXRef<PXData> body, PXWebRequestEventHandler handler) {
  PXRef<PXJSONRequest> request =
      PXMake<PXJSONRequest>(std::move(url), PXString("POST"), std::move(body),
                            /*keepAlive=*/true, kStartedRequestTimeout, std::move(handler));
  request->setAutoRetainUntilRequestCompletion(true);
  if (!request->startRequestInRunLoopMode(kPXDefaultRunLoopMode)) {
    request->setAutoRetainUntilRequestCompletion(false);
    return {};
  }
  return request;
}

}  // namespace

// ---- Starting -------------------------------------------------------------------------------

PXRef<PXJSONRequest> PXJSONRequest::startedJSONRequestWithURL(PXString url, const PXValue& requestObject,
                                                              PXWebRequestEventHandler handler,
                                                              PXErrorRef* error) {
  if (!requestObject) {
    if (error) *error = nullptr;
    return {};
  }
  PXRef<PXData> body = requestObject.dataValue();
  if (!body) {
    body = PXJSONSerialization::dataWithJSONObject(requestObject, 0, error);
    if (!body) return {};
  }
  // The JSON type is set on event 1, after the web request's own defaults,
  // so it is the one that is sent.
  PXWebRequestEventHandler wrapper = [handler = std::move(handler)](PXWebRequest* request, int32_t event,
                                                                    const PXValue& object, uint32_t flags) {
    if (event == kPXWebRequestEventWillStart) {
      request->setRequestHeaders(
          PXDictionary::dictionaryWithEntries({{"Content-Type", kPXJSONRequestContentType}}));
    }
    if (handler) handler(request, event, object, flags);
  };
  PXRef<PXJSONRequest> request = startedPOST(std::move(url), std::move(body), std::move(wrapper));
  if (error) *error = nullptr;
  return request;
}

PXRef<PXJSONRequest> PXJSONRequest::startedJSONRequestWithURL(PXString url, const PXValue& requestObject,
                                                              PXJSONResponseHandler responseHandler,
                                                              PXErrorRef* error) {
  PXWebRequestEventHandler onFinish = [responseHandler = std::move(responseHandler)](
                                          PXWebRequest* request, int32_t event, const PXValue&,
                                          uint32_t flags) {
    if (event != kPXWebRequestEventFinished || !responseHandler) return;
    auto* jsonRequest = static_cast<PXJSONRequest*>(request);  // made by startedPOST: always a PXJSONRequest
    PXErrorRef parseError;
    const PXValue answer = jsonRequest->responseJSONObjectWithError(&parseError);
    responseHandler(jsonRequest, (flags & kPXWebRequestFinishedSuccess) != 0,
                    flags & kPXWebRequestFinishedCancelled, answer, parseError.get());
  };
  return startedJSONRequestWithURL(std::move(url), requestObject, std::move(onFinish), error);
}

// ---- The answer ---------------------------------------------------------------------------------

PXValue PXJSONRequest::responseJSONObjectWithError(PXErrorRef* error) const {
  PXRef<PXMutableData> body = responseBodyData();
  if (!body) return {};
  return PXJSONSerialization::JSONObjectWithData(body.get(), 0, error);
}

// ---- Objects and dictionaries ----------------------------------------------------------------------

PXRef<PXDictionary> PXJSONRequest::jsonDictionaryFromProperties(const PXRef<PXArray>& properties,
                                                                const PXObject& object) {
  PXRef<PXMutableDictionary> result = PXMutableDictionary::dictionary();
  PXPropertyTools::enumerateProperties(
      object.pxClass(), properties, /*recursive=*/true,
      [&](const PXClass&, std::string_view name, const PXPropertyDescriptor&, bool*) {
        PXValue value = object.valueForKey(name);
        if (value) result->setObject(value, PXValue(name));
      });
  return result;
}

PXRef<PXDictionary> PXJSONRequest::matchDictionary(const PXDictionary* dictionary,
                                                   const PXRef<PXArray>& properties, const PXObject& object,
                                                   PXRef<PXMutableDictionary>* unusedKeysDict, PXErrorRef*) {
  PXRef<PXMutableDictionary> result = PXMutableDictionary::dictionary();
  PXRef<PXMutableDictionary> unused =
      dictionary ? dictionary->mutableCopyDictionary() : PXMutableDictionary::dictionary();
  if (dictionary) {
    PXPropertyTools::enumerateProperties(
        object.pxClass(), properties, /*recursive=*/true,
        [&](const PXClass&, std::string_view name, const PXPropertyDescriptor& property, bool*) {
          const PXValue key(name);
          const PXValue value = dictionary->objectForKey(key);
          if (!value) return;
          std::string_view className;
          const PropertyKind kind = kindOfType(property.typeCode, &className);
          std::optional<PXValue> converted = convertedValue(value, kind, className);
          if (!converted || !*converted) return;
          result->setObject(*converted, key);
          unused->removeObjectForKey(key);
        });
  }
  if (unusedKeysDict) *unusedKeysDict = std::move(unused);
  return result;
}
