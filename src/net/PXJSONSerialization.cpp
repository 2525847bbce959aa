#include <pxkit/json/JSONDecoder.h>
#include <pxkit/json/JSONSerializer.h>
#include <pxkit/net/PXJSONSerialization.h>
#include <pxkit/objects/PXArray.h>
#include <pxkit/objects/PXClass.h>
#include <pxkit/objects/PXDictionary.h>

#include <cstdlib>

const char* const kPXKitErrorDomain = "PXKitError";

PXJSONPlatformService::~PXJSONPlatformService() = default;

namespace {

// The built-in codec reads with every leniency it has.
constexpr JSONParseOptionFlags kFallbackParseOptions =
    kPXJSONParseOptionComments | kPXJSONParseOptionUnicodeNewlines | kPXJSONParseOptionLooseUnicode |
    kPXJSONParseOptionPermitTextAfterValidJSON;

constexpr const char* kWriteStreamUnavailable =
    "-[PXJSONSerialization writeJSONObject:toStream:options:error:] not available in built-in codec flavor";
constexpr const char* kReadStreamUnavailable =
    "-[PXJSONSerialization JSONObjectWithStream:options:error:] not available in built-in codec flavor";

// The platform service, looked up once. `available` follows the lookup by name
// alone; `service` is the instance to forward to.
struct Platform {
  bool available = false;
  PXRef<PXObject> instance;
  PXJSONPlatformService* service = nullptr;
};

const Platform& platform() {
  // A function-local static: made once, thread-safe, never recomputed.
  static const Platform cached = [] {
    Platform p;
    if (const PXClass* cls = PXClass::named("NSJSONSerialization")) {
      p.available = true;
      p.instance = cls->createInstance();
      p.service = dynamic_cast<PXJSONPlatformService*>(p.instance.get());
    }
    return p;
  }();
  return cached;
}

bool isValidFallback(const PXValue& object, size_t depth) {
  switch (object.kind()) {
    case PXValue::Kind::String:
    case PXValue::Kind::Null:
    case PXValue::Kind::Bool:
    case PXValue::Kind::Int:
    case PXValue::Kind::UInt:
    case PXValue::Kind::Double:
      return true;
    case PXValue::Kind::Object:
      break;
    default:
      return false;
  }
  const PXObject* container = object.objectPointer();
  if (container->objectTag() != PXObjectTag::Array && container->objectTag() != PXObjectTag::Dictionary) {
    return false;
  }
  if (depth >= kPXJSONMaxDepth) return false;  // also stops a container that holds itself
  if (container->objectTag() == PXObjectTag::Array) {
    for (const PXValue& element : static_cast<const PXArray&>(*container)) {
      if (!isValidFallback(element, depth + 1)) return false;
    }
    return true;
  }
  // Keys follow the same rule as values, so a number key passes.
  for (const PXDictionary::Entry& entry : static_cast<const PXDictionary&>(*container)) {
    if (!isValidFallback(entry.first, depth + 1) || !isValidFallback(entry.second, depth + 1)) return false;
  }
  return true;
}

JSONSerializeOptionFlags serializeOptions(unsigned writeOptions) {
  return (writeOptions & kPXJSONWritingPrettyPrinted) ? kPXJSONSerializeOptionPretty
                                                      : kPXJSONSerializeOptionNone;
}

}  // namespace

bool PXJSONSerialization::isNSJSONSerializationAvailable() {
  return platform().available;
}

bool PXJSONSerialization::isValidJSONObject(const PXValue& object) {
  if (isNSJSONSerializationAvailable()) {
    PXJSONPlatformService* service = platform().service;
    return service && service->isValidJSONObject(object);
  }
  return isValidFallback(object, 0);
}

PXRef<PXData> PXJSONSerialization::dataWithJSONObject(const PXValue& object, unsigned options,
                                                      PXErrorRef* error) {
  if (isNSJSONSerializationAvailable()) {
    PXJSONPlatformService* service = platform().service;
    return service ? service->dataWithJSONObject(object, options, error) : PXRef<PXData>();
  }
  const JSONSerializeOptionFlags flags = serializeOptions(options);
  if (object.isString())
    return JSONDataWithOptionsIncludeQuotes(object, flags, /*includeQuotes=*/true, error);
  if (object.isNumber()) {
    // The number's own text (a boolean true is "1"), written bare.
    return JSONDataWithOptionsIncludeQuotes(PXValue(object.description()), flags, /*includeQuotes=*/false,
                                            error);
  }
  if (object.isArray() || object.isDictionary()) return JSONDataWithOptions(object, flags, error);
  // A top-level null, and everything else: nothing, and the error untouched.
  return {};
}

PXValue PXJSONSerialization::JSONObjectWithData(const PXData* data, unsigned options, PXErrorRef* error) {
  if (isNSJSONSerializationAvailable()) {
    PXJSONPlatformService* service = platform().service;
    return service ? service->JSONObjectWithData(data, options, error) : PXValue();
  }
  auto decoder = JSONDecoder::decoderWithParseOptions(kFallbackParseOptions);
  if (options & (kPXJSONReadingMutableContainers | kPXJSONReadingMutableLeaves)) {
    return decoder->mutableObjectWithData(data, error);
  }
  return decoder->objectWithData(data, error);
}

PXString PXJSONSerialization::JSONify(const PXValue& object) {
  if (!isValidJSONObject(object)) return {};
  PXRef<PXData> data = dataWithJSONObject(object, 0, nullptr);
  if (!data) return {};
  return PXString(data->view());
}

int64_t PXJSONSerialization::writeJSONObject(const PXValue& object, std::ostream& stream, unsigned options,
                                             PXErrorRef* error) {
  if (isNSJSONSerializationAvailable()) {
    PXJSONPlatformService* service = platform().service;
    return service ? service->writeJSONObject(object, stream, options, error) : 0;
  }
  PXSetError(error, PXError::errorWithDomain(kPXKitErrorDomain, -1, PXString(kWriteStreamUnavailable)));
  return 0;
}

PXValue PXJSONSerialization::JSONObjectWithStream(std::istream& stream, unsigned options, PXErrorRef* error) {
  if (isNSJSONSerializationAvailable()) {
    // Kept from the platform-service flavour: this branch asks PXJSONSerialization
    // itself rather than the service, so it never returns. Nothing in the kit reads
    // JSON from a stream; rather than recurse until the stack runs out, stop here.
    (void)stream, (void)options, (void)error;
    std::abort();
  }
  PXSetError(error, PXError::errorWithDomain(kPXKitErrorDomain, -2, PXString(kReadStreamUnavailable)));
  return {};
}
