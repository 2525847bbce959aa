// PXKit — PXRuntime: associated objects and subclass lookup for any kit object.
//
// Associated objects let one piece of code hang a value on an object it does
// not own, under a key of its own (any unique address), with the ownership it
// chooses: retained, assigned (no reference) or copied.
//
//   static const char kLastPowerSourceKey = 0;
//   PXRuntime::setRetainedAssociatedObject(*tracker, "AC Power", &kLastPowerSourceKey);
//   PXValue last = PXRuntime::getAssociatedObjectForKey(*tracker, &kLastPowerSourceKey);
//   PXRuntime::setRetainedAssociatedObject(*tracker, PXValue(), &kLastPowerSourceKey);  // removes it
//
//   if (auto subclasses = PXRuntime::arrayOfSubClasses(PXRuleCheckerFunction::classObject())) ...
//
// Thread safety: every operation may be called from any thread; the object's
// associations are guarded by the object itself.
#pragma once

#include <pxkit/export.h>
#include <pxkit/objects/PXClass.h>
#include <pxkit/objects/PXObject.h>
#include <pxkit/objects/PXValue.h>

#include <optional>
#include <vector>

namespace PXRuntime {

// Associates `value` with `object` under `key`, holding a strong reference to
// it. An absent value removes whatever was associated under the key; a value
// replaced or removed is released outside the object's lock.
PXKIT_EXPORT void setRetainedAssociatedObject(PXObject& object, const PXValue& value, const void* key);
// The same without any reference: the caller keeps an object value alive for
// as long as it stays associated (plain values such as strings and numbers are
// simply stored).
PXKIT_EXPORT void setAssignedAssociatedObject(PXObject& object, const PXValue& value, const void* key);
// The same with a copy of the value (PXValue::copy: immutable copies of
// containers), held strongly.
PXKIT_EXPORT void setCopiedAssociatedObject(PXObject& object, const PXValue& value, const void* key);
// The value associated under `key`, or absent.
PXKIT_EXPORT PXValue getAssociatedObjectForKey(const PXObject& object, const void* key);
// Removes (and releases) every association of the object, whoever made it.
PXKIT_EXPORT void removeAssociatedObjects(PXObject& object);

// Every registered class that has `cls` among its ancestors (not `cls`
// itself), in registration order; absent (never an empty list) when there is
// no such class. Classes register when their library is loaded.
PXKIT_EXPORT std::optional<std::vector<const PXClass*>> arrayOfSubClasses(const PXClass& cls);

}  // namespace PXRuntime
