// PXKit — the rule provider of device-registry services: whether a device
// exists, and its property values.
//
// Identifier "iokit", no key path prefix: reached only as "${iokit(...)}".
// The argument must be a dictionary with a "do" entry; its other entries are
// sorted by key prefix into a matching and a meeting dictionary:
//
//   matchStr<K>=v   matching: K = the string v
//   matchInt<K>=v   matching: K = v's 64-bit integer value (leading digits
//                   of the text, as PXValue::longLongValue reads it)
//   meetStr<K>=v    meeting:  K = the string v
//   meetInt<K>=v    meeting:  K = v's 64-bit integer value
//   anything else   ("do", "propertyName", ...) sorted into neither
//
//   do=exists         true when firstServiceMatching finds a service, else false
//   do=propertyValue  that service's valueForProperty("<propertyName>"), or absent
//   any other "do"    absent
//
//   ${iokit(do=exists;matchStrIOProviderClass=IOPCIDevice;meetIntvendor-id=4318)}
//
// asks whether any PCI device has the vendor id 4318 (0x10de). The matching
// dictionary is the registry's (PXIOService.h: "IOProviderClass" names a
// registry class or a udev subsystem, other keys udev properties or sysfs
// attributes); the meeting dictionary is compared with each service's
// properties() by value equality (a number equals a number of another kind).
// "${iokit(do=exists)}" asks with an empty matching dictionary;
// "${iokit(exists)}" passes a string and answers absent.
//
// The returnString flag is not looked at: results stay booleans and property
// values (spliced into text as "1" and "0", numbers in decimal). Failures give
// absent, or false for "exists"; nothing is logged or raised.
//
// Thread safety: keeps no state beyond its identifier; resultFor and
// firstServiceMatching may run on any thread (registry reads only).
#pragma once

#include <pxkit/export.h>
#include <pxkit/rules/PXRuleCheckerFunction.h>
#include <pxkit/system/PXIOService.h>

class PXKIT_EXPORT PXRuleCheckerIOKitFunction : public PXRuleCheckerFunction {
  PX_DECLARE_CLASS(PXRuleCheckerIOKitFunction)

 public:
  // A new provider ("+function").
  static PXRef<PXRuleCheckerIOKitFunction> function();

  PXRuleCheckerIOKitFunction();

  PXValue resultFor(const PXValue& argument, bool returnString) override;

  // firstServiceMatching:andMeeting: the first service (in the service
  // query's order) matching `matching` whose properties hold every entry of
  // `meeting` with an equal value (a missing property is a miss); an absent
  // or empty `meeting` takes the first match. Absent when `matching` is
  // absent or nothing qualifies.
  static PXRef<PXIOService> firstServiceMatching(const PXRef<PXDictionary>& matching,
                                                 const PXRef<PXDictionary>& meeting);
};
