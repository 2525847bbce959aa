// GVariant -> PXValue: what D-Bus replies and signals, and GSettings values,
// read as in the kit's own values.
//
//   PXValue percentage = pxkit::internal::valueOfVariant(reply.get());   // "(d)" -> [42.5]
//
//   boolean                       -> bool
//   byte, int16/32/64, uint16/32, handle -> signed integer
//   uint64                        -> unsigned integer (all of its range)
//   double                        -> double
//   string, object path, signature -> string
//   variant, maybe                -> the value inside (an empty maybe: absent)
//   bytestring ("ay")             -> data
//   dictionary ("a{..}")          -> dictionary; keys that are not strings are
//                                    written as their description ("1", "2.5"),
//                                    entries with an absent key or value dropped
//   array, tuple                  -> array, absent items dropped
//
// Nesting deeper than 64 levels reads as absent at that depth; null reads as
// absent. Never fails otherwise.
//
// Thread safety: any thread (a pure function of its argument).
#pragma once

#include <glib.h>
#include <pxkit/objects/PXValue.h>

namespace pxkit::internal {

PXValue valueOfVariant(GVariant* variant);

}  // namespace pxkit::internal
