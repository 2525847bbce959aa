// PXKit — PXIOService: one device of the machine as a registry service.
//
// A service stands for one device of the kernel's device tree (a sysfs path,
// read through udev). It has properties (the device's sysfs attributes, its
// udev properties where a udev daemon keeps a database, and registry-style
// properties such as "model" or "Device Characteristics"), a class in the
// kit's registry classes ("IOPlatformExpertDevice", "IOAccelerator",
// "IOBlockStorageDevice", ...; docs/linux-sources.md has the table), a parent
// and children, and interest notifications when the device changes or goes.
//
//   PXRef<PXArray> disks = PXIOService::servicesForMatchingClass("IOBlockStorageDevice");
//   for (const PXValue& item : *disks) {
//     auto* disk = static_cast<PXIOService*>(item.objectPointer());
//     PXValue medium = disk->valueForProperty("Device
//     Characteristics").dictionaryValue()->objectForKey("Medium Type");
//   }
//   PXRef<PXIOService> parent = disk->parentService();   // absent at the root
//
// Handles: `service()` is a 32-bit handle, one per sysfs path for the life of
// the process, so two services of the same device are equal and hash alike.
// A handle may outlive its device: reads then answer absent or NO.
//
// Writing: the device registry is read-only for the kit (kept on purpose:
// writing sysfs attributes changes hardware state); the setters answer
// kPXIOReturnUnsupported.
//
// Thread safety: reads may be called from any thread. Listeners are added,
// removed and called on one thread: the one whose run loop was current when
// the first listener was added, which must run that loop.
#pragma once

#include <pxkit/export.h>
#include <pxkit/objects/PXArray.h>
#include <pxkit/objects/PXDictionary.h>
#include <pxkit/objects/PXObject.h>
#include <pxkit/objects/PXString.h>
#include <pxkit/objects/PXValue.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

// Result codes of the registry (the values of the platform family the kit was written for).
inline constexpr int32_t kPXIOReturnSuccess = 0;
inline constexpr int32_t kPXIOReturnError = static_cast<int32_t>(0xE00002BC);
inline constexpr int32_t kPXIOReturnUnsupported = static_cast<int32_t>(0xE00002C7);

// Interest message types.
inline constexpr uint32_t kPXIOMessageServiceIsTerminated = 0xE0000010;    // the device went away
inline constexpr uint32_t kPXIOMessageServicePropertyChange = 0xE0000130;  // the device changed

// The matching-dictionary key that names the class (or a udev subsystem).
PXKIT_EXPORT extern const char* const kPXIOProviderClassKey;  // "IOProviderClass"

class PXIOService;

// Receives a service's interest notifications. The message argument points
// to the event's action text ("change", "remove", "bind", ...), valid for the
// call only.
class PXKIT_EXPORT PXIOServiceNotificationListener {
 public:
  virtual ~PXIOServiceNotificationListener() = default;
  // service:receivedNotificationWithMessageType:messageArgument:
  virtual void service(PXIOService* service, uint32_t messageType, void* messageArgument) = 0;
};

// IOServiceTools: registry handles kept in collections, as unsigned 32-bit
// numbers (type code "I"). Neither retains anything.
namespace IOServiceTools {
// valueWithIOObject:
PXKIT_EXPORT PXValue valueWithIOObject(uint32_t object);
// IOObject: the handle of such a value; 0 for anything else.
PXKIT_EXPORT uint32_t IOObject(const PXValue& value);
}  // namespace IOServiceTools

class PXKIT_EXPORT PXIOService : public PXObject {
  PX_DECLARE_CLASS(PXIOService)

 public:
  // ---- Finding ---------------------------------------------------------------------
  // serviceWithIOService: a service for a handle; absent for 0 or a handle
  // never handed out.
  static PXRef<PXIOService> serviceWithIOService(uint32_t service);
  // A service for a sysfs path ("/sys/devices/virtual/dmi/id"); absent when
  // no device is there now.
  static PXRef<PXIOService> serviceWithSysfsPath(std::string_view sysfsPath);
  // servicesForMatchingClass: every service of a registry class; absent for a
  // null name. Empty for a class with no devices here (or that the kit does
  // not map).
  static PXRef<PXArray> servicesForMatchingClass(const char* className);
  // servicesForMatchingDict: every service matching a matching dictionary
  // (kPXIOProviderClassKey, "IONameMatch", other keys as udev properties or
  // sysfs attributes), in sysfs path order; possibly empty, never absent.
  static PXRef<PXArray> servicesForMatchingDict(const PXDictionary& matching);
  // The names of the registry classes the kit maps, most specific first,
  // "IOService" (every device) last; docs/linux-sources.md has the table.
  static std::vector<std::string> registryClassNames();
  // How many services servicesForMatchingClass would find, without making
  // them (much cheaper for "IOService", every device); 0 for a null name.
  static size_t countServicesForMatchingClass(const char* className);

  // initWithService: a service for `service`. An unknown handle gives an
  // invalid service (service() 0); serviceWithIOService answers absent then.
  explicit PXIOService(uint32_t service);
  // Stops notifications (invalidate).
  ~PXIOService() override;

  // ---- Reading -----------------------------------------------------------------------
  // The handle; 0 after invalidate().
  uint32_t service() const noexcept { return service_; }
  // The device's sysfs path; empty when invalid.
  std::string sysfsPath() const;
  // valueForProperty: one property; absent without a service, when the device
  // is gone or has no such property.
  PXValue valueForProperty(std::string_view name) const;
  // properties: all of them; absent without a service or device.
  PXRef<PXDictionary> properties() const;
  // setValue:forProperty: and setProperties: kPXIOReturnUnsupported (see above).
  int32_t setValue(const PXValue& value, std::string_view property);
  int32_t setProperties(const PXDictionary& properties);
  // serviceClass: the most specific registry class of the device
  // ("IOService" when the kit maps none); absent without a service or device.
  PXString serviceClass() const;
  // conformsToIOClass: whether the device is of the class or a subclass. NO
  // for an absent name, a name of 128 characters or more, or one that is not
  // ASCII (without looking at the device), and without a service.
  bool conformsToIOClass(const char* className) const;
  // parentService: the parent device; absent at the root or without a service.
  PXRef<PXIOService> parentService() const;
  // childServices: the child devices in sysfs path order; absent (not empty)
  // when there are none, and without a service.
  PXRef<PXArray> childServices() const;

  // ---- Notifications ---------------------------------------------------------------------
  // addNotificationListener: appends `listener` (not retained; remove it
  // before it goes). The first one starts watching the device on the current
  // thread's run loop. The same listener added twice is called twice.
  void addNotificationListener(PXIOServiceNotificationListener* listener);
  // removeNotificationListener: removes every entry of `listener`; the last
  // one stops the watching. Null or unknown: nothing changes.
  void removeNotificationListener(PXIOServiceNotificationListener* listener);
  // Whether the device is being watched (some listener is registered).
  bool isWatching() const noexcept { return static_cast<bool>(watch_); }

  // invalidate: drops every listener, stops watching and forgets the handle.
  // A service never becomes valid again.
  void invalidate();

  // ---- Equality ---------------------------------------------------------------------------
  // Equal: another service of the same handle. hash: the handle.
  bool isEqual(const PXObject& other) const override;
  size_t hash() const override { return service_; }
  PXString description() const override;

 private:
  struct Watch;
  void deliver(uint32_t messageType, const char* action);

  uint32_t service_ = 0;
  std::vector<PXIOServiceNotificationListener*> listeners_;
  std::unique_ptr<Watch> watch_;
};
