// Key-value coding: reading and writing declared properties by name and by
// dotted key path.
#include <pxkit/objects/PXClass.h>
#include <pxkit/objects/PXDictionary.h>
#include <pxkit/objects/PXException.h>
#include <pxkit/objects/PXFormat.h>
#include <pxkit/objects/PXObject.h>

#include <string_view>

const char* const kPXUndefinedKeyException = "NSUnknownKeyException";
const char* const kPXInternalInconsistencyException = "NSInternalInconsistencyException";

namespace {

// The user-info key naming the key that was not found.
constexpr const char* kUnknownUserInfoKey = "NSUnknownUserInfoKey";

[[noreturn]] void raiseUndefinedKey(const char* format, const PXString& className, const void* receiver,
                                    std::string_view key) {
  PXString reason = PXFormat(format, className, receiver, key);
  throw PXException(kPXUndefinedKeyException, reason,
                    PXDictionary::dictionaryWithEntries({{kUnknownUserInfoKey, PXValue(key)}}));
}

constexpr const char* kValueForUndefinedKeyFormat =
    "[<%@ %p> valueForUndefinedKey:]: this class is not key value coding-compliant for the key %@.";
constexpr const char* kSetValueForUndefinedKeyFormat =
    "[<%@ %p> setValue:forUndefinedKey:]: this class is not key value coding-compliant for the key %@.";

// The object a key path continues from. Absent ends the walk; a plain value
// (number, string, date, null) has no keys at all and raises as an object would.
const PXObject* continueFrom(const PXValue& value, std::string_view nextKey, const char* format) {
  if (!value) return nullptr;
  if (PXObject* object = value.objectPointer()) return object;
  raiseUndefinedKey(format, value.className(), &value, nextKey);
}

std::string_view firstKey(std::string_view keyPath) {
  return keyPath.substr(0, keyPath.find('.'));
}

}  // namespace

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
    object = continueFrom(current, firstKey(keyPath), kValueForUndefinedKeyFormat);
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
    object = const_cast<PXObject*>(continueFrom(current, firstKey(keyPath), kSetValueForUndefinedKeyFormat));
    if (!object) return;  // nothing there to set: quietly nothing
  }
}

PXValue PXObject::valueForUndefinedKey(std::string_view key) const {
  raiseUndefinedKey(kValueForUndefinedKeyFormat, PXString(pxClass().name()), this, key);
}

void PXObject::setValueForUndefinedKey(const PXValue&, std::string_view key) {
  raiseUndefinedKey(kSetValueForUndefinedKeyFormat, PXString(pxClass().name()), this, key);
}
