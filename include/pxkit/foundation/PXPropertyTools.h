// PXKit — PXPropertyTools: walking and releasing the declared properties of
// kit objects.
//
// The properties are those a class declares in PX_DEFINE_CLASS (name, type
// code, copy/retain/assign ownership, backing field), class by class, each
// class's own properties in declaration order.
//
//   PXPropertyTools::enumerateProperties(*person, /*properties=*/{}, /*recursive=*/true,
//       [&](PXObject& object, std::string_view name, const PXPropertyDescriptor& property, bool* stop) {
//         json->setObject(object.valueForKey(name), name);
//       });
//
//   // In a destructor or teardown: drop every object the properties hold.
//   PXPropertyTools::releaseAndNilAllPropertiesRecursive(*person, /*recursive=*/true);
//
// Thread safety: enumeration reads only the immutable class table and may run
// on any thread; the callback runs on the calling thread. Releasing properties
// writes the object's fields directly and needs the same care as any other
// write to them.
#pragma once

#include <pxkit/export.h>
#include <pxkit/objects/PXArray.h>
#include <pxkit/objects/PXClass.h>
#include <pxkit/objects/PXObject.h>

#include <functional>
#include <string_view>

// The callback of the instance form: the object, the property's name and
// descriptor, and a stop flag. Setting *stop ends the walk through the current
// class's properties; with recursion the superclass's properties still follow.
using PXPropertyEnumerationBlock = std::function<void(PXObject& object, std::string_view propertyName,
                                                      const PXPropertyDescriptor& property, bool* stop)>;
// The callback of the class form, which passes the class where the instance
// form passes the object (the class the walk started from, on every call).
using PXClassPropertyEnumerationBlock = std::function<void(const PXClass& cls, std::string_view propertyName,
                                                           const PXPropertyDescriptor& property, bool* stop)>;

namespace PXPropertyTools {

// Calls `block` for each property `cls` declares, skipping those whose names
// are not in `properties` (an array of strings; empty reference: all), then,
// when `recursive`, for each property of the superclass, and so on up to the
// root class. An empty block does nothing.
PXKIT_EXPORT void enumerateProperties(const PXClass& cls, const PXRef<PXArray>& properties, bool recursive,
                                      const PXClassPropertyEnumerationBlock& block);
// The same over the object's class, passing the object to the callback.
PXKIT_EXPORT void enumerateProperties(PXObject& object, const PXRef<PXArray>& properties, bool recursive,
                                      const PXPropertyEnumerationBlock& block);

// Releases and clears the value of every copy ("C") and retain ("&") property
// that has a backing field, in the object's class and, when `recursive`, its
// superclasses. Assign properties and properties without a backing field are
// left alone. Observers are not told: this is teardown, not a change.
PXKIT_EXPORT void releaseAndNilAllPropertiesRecursive(PXObject& object, bool recursive);

}  // namespace PXPropertyTools
