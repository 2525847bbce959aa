// The device registry behind PXIOService and PXServiceQuery: udev devices
// (libgudev over sysfs, with the udev database where a udev daemon keeps one),
// 32-bit handles interned per sysfs path, the table from the registry class
// names the kit uses to Linux devices, and device events on a run loop.
//
//   uint32_t handle = pxkit::internal::DeviceRegistry::handleForSysfsPath("/sys/devices/virtual/dmi/id");
//   pxkit::glib::Object<GUdevDevice> device = DeviceRegistry::device(handle);   // null once it is gone
//   const DeviceClass* cls = DeviceRegistry::deviceClass("IOBlockStorageDevice");
//   DeviceEvents events = DeviceEvents::start(PXRunLoop::current(), [](const DeviceEvent& e) { ... });
//
// Handles: one per sysfs path, made on first sight and never reused, so two
// handles are equal exactly when they name the same device path; 0 is no
// device. The table of handles only grows (by the devices the process ever
// looked at).
//
// Thread safety: every function may be called from any thread. A DeviceEvents
// delivers on the run loop it was started on; make and destroy it there.
#pragma once

#include <gudev/gudev.h>
#include <pxkit/objects/PXDictionary.h>
#include <pxkit/objects/PXValue.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/internal/GLibHandles.h"

class PXRunLoop;

namespace pxkit::internal {

using UdevDevice = glib::Object<GUdevDevice>;

// One registry class: which devices are of it. Every device is an "IOService".
// A class's devices include those of its subclasses (a disk is also
// "IOMedia"), so conformance is simply matching.
struct DeviceClass {
  const char* name;       // "IOBlockStorageDevice"
  const char* subsystem;  // the udev subsystem it lives in; null: every device (the root); "": none
  bool (*matches)(GUdevDevice* device);  // a further test within the subsystem; null: all of it
};

class DeviceRegistry {
 public:
  DeviceRegistry() = delete;

  // The handle for a sysfs path (made on first sight); 0 for an empty path.
  static uint32_t handleForSysfsPath(std::string_view sysfsPath);
  // The path a handle stands for; empty for 0 or an unknown handle.
  static std::string sysfsPath(uint32_t handle);
  // Whether a handle was handed out.
  static bool isKnownHandle(uint32_t handle) noexcept;

  // The device of a handle as it is now; null when it is gone or unknown.
  static UdevDevice device(uint32_t handle);
  // The device at a sysfs path; null when there is none.
  static UdevDevice deviceAtPath(const char* sysfsPath);

  // The table, most specific classes first.
  static const std::vector<DeviceClass>& classes();
  // The entry of a class name; null for a name the kit does not map.
  static const DeviceClass* deviceClass(std::string_view name);
  // The most specific class of a device ("IOService" when none is more specific).
  static const DeviceClass& classOfDevice(GUdevDevice* device);
  // Whether `device` is of class `name` or of one of its subclasses.
  static bool conformsTo(GUdevDevice* device, std::string_view name);

  // The number of devices of a class: as many as devicesMatching finds for it,
  // without making them. Every device ("IOService") is counted by walking
  // /sys/devices for directories holding a "uevent" file and a "subsystem"
  // link, which is what udev's enumeration lists, at a fraction of its cost.
  static size_t countDevices(const DeviceClass& cls);
  // Devices matching a matching dictionary, in sysfs order (see matches()).
  static std::vector<UdevDevice> devicesMatching(const PXDictionary& matching);
  // Whether `device` matches `matching`: "IOProviderClass" names a registry
  // class of the table or, failing that, a udev subsystem; "IONameMatch" is
  // the device's sysfs name; every other key must equal a udev property or a
  // sysfs attribute of the device, or else a registry-style property (as
  // text; a number wanted compares numerically, so 0x10de matches "0x10de"
  // and "4318"). An unknown class matches nothing.
  static bool matches(GUdevDevice* device, const PXDictionary& matching);

  // The properties of a device: its sysfs attributes, its udev properties
  // where a udev database has them, and the registry-style properties of its
  // class (DESIGN: "model", "Device Characteristics", ...), the latter last
  // so that they win.
  static PXRef<PXDictionary> properties(GUdevDevice* device);
  // One property, looked up in the reverse order of properties(); absent when
  // the device has none of that name.
  static PXValue property(GUdevDevice* device, std::string_view name);

  // A sysfs attribute's text without trailing white space; empty when absent.
  static std::string attribute(GUdevDevice* device, const char* name);
};

// One device event.
struct DeviceEvent {
  const char* action;     // "add", "remove", "change", "bind", "unbind", "move", "online", "offline"
  const char* sysfsPath;  // "/sys/devices/..."
  const char* subsystem;  // may be null
  GUdevDevice* device;  // the device as the event or sysfs tells it; may be null (a "remove" from the kernel)
};

// Device events delivered on a run loop, from libgudev where a udev daemon
// runs (or a device testbed stands in for one), otherwise from the kernel's
// own uevent broadcast. Move-only; destroying it stops delivery.
class DeviceEvents {
 public:
  using Handler = std::function<void(const DeviceEvent& event)>;

  DeviceEvents() noexcept;
  DeviceEvents(DeviceEvents&&) noexcept;
  DeviceEvents& operator=(DeviceEvents&&) noexcept;
  ~DeviceEvents();

  // Starts delivery on `loop` (on the loop's thread), of the events of one
  // udev subsystem or (null) of all. Empty (false) when no event source could
  // be opened: nothing will be delivered then.
  static DeviceEvents start(PXRunLoop* loop, Handler handler, const char* subsystem = nullptr);
  explicit operator bool() const noexcept { return static_cast<bool>(impl_); }
  // "udev" or "kernel": where the events come from (for logs and tests).
  const char* source() const noexcept;

  // Whether a udev daemon rebroadcasts uevents here (or a testbed emulates one).
  static bool udevEventsAvailable();

  struct Impl;

 private:
  std::unique_ptr<Impl> impl_;
};

}  // namespace pxkit::internal
