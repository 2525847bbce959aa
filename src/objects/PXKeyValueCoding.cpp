// Key-value coding: reading and writing declared properties by name and by
// dotted key path.
#include <pxkit/objects/PXClass.h>
#include <pxkit/objects/PXDictionary.h>
#include <pxkit/objects/PXException.h>
#include <pxkit/objects/PXFormat.h>
#include <pxkit/objects/PXObject.h>

#include <string_view>
#include <utility>

const char* const kPXUndefinedKeyException = "NSUnknownKeyException";
const char* const kPXInternalInconsistencyException = "NSInternalInconsistencyException";

namespace {

// The user-info key naming the key that was not found.
constexpr const char* kUnknownUserInfoKey = "NSUnknownUserInfoKey";

constexpr const char* kValueForUndefinedKeyFormat =
    "[<%@ %p> valueForUndefinedKey:]: this class is not key value coding-compliant for the key %@.";
constexpr const char* kSetValueForUndefinedKeyFormat =
    "[<%@ %p> setValue:forUndefinedKey:]: this class is not key value coding-compliant for the key %@.";

// Where a lookup that does not raise collects the first undefined key met on
// this thread while it runs. Lookups nest: each installs its own and puts the
// previous one back.
struct UndefinedKeySink {
  bool hit = false;
  PXUndefinedKey first;
};
thread_local UndefinedKeySink* tlsUndefinedKeySink = nullptr;

class UndefinedKeyScope {
 public:
  UndefinedKeyScope() noexcept : previous_(std::exchange(tlsUndefinedKeySink, &sink_)) {}
  ~UndefinedKeyScope() { tlsUndefinedKeySink = previous_; }
  UndefinedKeyScope(const UndefinedKeyScope&) = delete;
  UndefinedKeyScope& operator=(const UndefinedKeyScope&) = delete;
  UndefinedKeySink& sink() noexcept { return sink_; }

 private:
  UndefinedKeySink sink_;
  UndefinedKeySink* previous_;
};

[[noreturn]] void raiseUndefinedKey(const PXString& reason, std::string_view key) {
  throw PXException(kPXUndefinedKeyException, reason,
                    PXDictionary::dictionaryWithEntries({{kUnknownUserInfoKey, PXValue(key)}}));
}

// A read of an undefined key: recorded and answered absent inside a lookup that
// does not raise, raised otherwise.
PXValue undefinedKeyForReading(const PXString& className, const void* receiver, std::string_view key) {
  PXString reason = PXFormat(kValueForUndefinedKeyFormat, className, receiver, key);
  if (UndefinedKeySink* sink = tlsUndefinedKeySink) {
    if (!sink->hit) {
      sink->hit = true;
      sink->first = PXUndefinedKey{PXString(key), std::move(reason)};
    }
    return {};
  }
  raiseUndefinedKey(reason, key);
}

// The object a key path continues from. Absent ends the walk; a plain value
// (number, string, date, null) has no keys at all and answers as an object
// without the key would.
const PXObject* continueFrom(const PXValue& value, std::string_view nextKey, bool forSetting) {
  if (!value) return nullptr;
  if (PXObject* object = value.objectPointer()) return object;
  if (forSetting)
    raiseUndefinedKey(PXFormat(kSetValueForUndefinedKeyFormat, value.className(), &value, nextKey), nextKey);
  undefinedKeyForReading(value.className(), &value, nextKey);
  return nullptr;
}

std::string_view firstKey(std::string_view keyPath) {
  return keyPath.substr(0, keyPath.find('.'));
}

// Runs `read` (a lookup of `keyOrPath`) with undefined keys collected instead of raised.
template <class Read>
PXKeyLookup lookUp(Read&& read, std::string_view keyOrPath, PXValue* out, PXUndefinedKey* undefinedKey) {
  UndefinedKeyScope scope;
  UndefinedKeySink& sink = scope.sink();
  try {
    *out = read();
  } catch (const PXException& e) {
    // Raised by an override, or by a class that raises without going through
    // valueForUndefinedKey: the same answer, reported instead of raised.
    if (!(e.name() == kPXUndefinedKeyException)) throw;
    if (!sink.hit) {
      sink.hit = true;
      // The key the exception names, else the first key asked (the one the
      // override was given).
      PXValue key = e.userInfo() ? e.userInfo()->objectForKey(kUnknownUserInfoKey) : PXValue();
      if (!key.isString()) key = PXValue(firstKey(keyOrPath));
      sink.first = PXUndefinedKey{key.stringObject(), e.reason()};
    }
  }
  if (sink.hit) {
    *out = PXValue();
    if (undefinedKey) *undefinedKey = std::move(sink.first);
    return PXKeyLookup::UndefinedKey;
  }
  return *out ? PXKeyLookup::Found : PXKeyLookup::Absent;
}

}  // namespace

void PXUndefinedKey::raise() const {
  raiseUndefinedKey(reason, key.view());
}

PXKeyLookup PXObject::lookupValueForKey(std::string_view key, PXValue* out,
                                        PXUndefinedKey* undefinedKey) const {
  return lookUp([&] { return valueForKey(key); }, key, out, undefinedKey);
}

PXKeyLookup PXObject::lookupValueForKeyPath(std::string_view keyPath, PXValue* out,
                                            PXUndefinedKey* undefinedKey) const {
  return lookUp([&] { return valueForKeyPath(keyPath); }, keyPath, out, undefinedKey);
}

PXValue PXObject::valueForKey(std::string_view key) const {
  const PXPropertyDescriptor* property = pxClass().propertyNamed(key);
  if (property && property->get) return property->get(*this);
  return valueForUndefinedKey(key);
}

void PXObject::setValueForKey(const PXValue& value, std::string_view key) {
  const PXPropertyDescriptor* property = pxClass().propertyNamed(key);
  if (!property || !property->set) {
    setValueForUndefinedKey(value, key);
    return;
  }
  // A field-backed copy property stores a copy, as its generated setter would;
  // a computed setter decides for itself.
  bool copies = property->ownership == PXPropertyOwnership::Copy && !property->backingField.empty();
  property->set(*this, copies ? value.copy() : value);
}

PXValue PXObject::valueForKeyPath(std::string_view keyPath) const {
  // Each step holds the object it stands on, so that a getter returning the
  // only reference to the next object keeps it alive for the next step.
  PXValue current;
  const PXObject* object = this;
  for (;;) {
    size_t dot = keyPath.find('.');
    if (dot == std::string_view::npos) return object->valueForKey(keyPath);
    current = object->valueForKey(keyPath.substr(0, dot));
    keyPath.remove_prefix(dot + 1);
    object = continueFrom(current, firstKey(keyPath), /*forSetting=*/false);
    if (!object) return {};
  }
}

void PXObject::setValueForKeyPath(const PXValue& value, std::string_view keyPath) {
  PXValue current;
  PXObject* object = this;
  for (;;) {
    size_t dot = keyPath.find('.');
    if (dot == std::string_view::npos) {
      object->setValueForKey(value, keyPath);
      return;
    }
    current = object->valueForKey(keyPath.substr(0, dot));
    keyPath.remove_prefix(dot + 1);
    object = const_cast<PXObject*>(continueFrom(current, firstKey(keyPath), /*forSetting=*/true));
    if (!object) return;  // nothing there to set: quietly nothing
  }
}

PXValue PXObject::valueForUndefinedKey(std::string_view key) const {
  return undefinedKeyForReading(PXString(pxClass().name()), this, key);
}

void PXObject::setValueForUndefinedKey(const PXValue&, std::string_view key) {
  raiseUndefinedKey(PXFormat(kSetValueForUndefinedKeyFormat, PXString(pxClass().name()), this, key), key);
}

PXKeyLookup PXLookupValue(const PXValue& receiver, std::string_view keyOrPath, PXValue* out,
                          PXUndefinedKey* undefinedKey) {
  if (const PXObject* object = receiver.objectPointer()) {
    return keyOrPath.find('.') == std::string_view::npos
               ? object->lookupValueForKey(keyOrPath, out, undefinedKey)
               : object->lookupValueForKeyPath(keyOrPath, out, undefinedKey);
  }
  *out = PXValue();
  if (!receiver || receiver.isNull()) return PXKeyLookup::Absent;
  if (undefinedKey) {
    const std::string_view key = firstKey(keyOrPath);
    *undefinedKey = PXUndefinedKey{
        PXString(key), PXFormat(kValueForUndefinedKeyFormat, receiver.className(), &receiver, key)};
  }
  return PXKeyLookup::UndefinedKey;
}
