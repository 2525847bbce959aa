// The device registry on libgudev (see DeviceRegistry.h).
//
// Queries go through one GUdevClient made for them alone, under a lock (a
// udev context is not thread-safe). It listens to no uevents (made with no
// subsystem list). Events come from a client of their own per DeviceEvents,
// or from libudev's kernel monitor.
#include "system/internal/DeviceRegistry.h"

#include <dirent.h>
#include <fcntl.h>
#include <libudev.h>
#include <pxkit/objects/PXArray.h>
#include <pxkit/objects/PXString.h>
#include <pxkit/platform/PXLog.h>
#include <pxkit/platform/PXRunLoop.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <optional>
#include <unordered_map>
#include <utility>

#include "platform/internal/FdWatch.h"
#include "platform/internal/RunLoopContext.h"
#include "system/internal/PowerSupply.h"

namespace pxkit::internal {

namespace {

// ---- Handles ------------------------------------------------------------------------
struct HandleTable {
  std::mutex lock;
  std::unordered_map<std::string, uint32_t> byPath;
  std::vector<std::string> paths{std::string()};  // index = handle; 0 is no device
};

HandleTable& handles() {
  static auto* table = new HandleTable();  // never destroyed: handles outlive statics
  return *table;
}

// ---- The query client -------------------------------------------------------------------
struct QueryClient {
  std::mutex lock;
  glib::Object<GUdevClient> client{g_udev_client_new(nullptr)};
};

QueryClient& queryClient() {
  static auto* shared = new QueryClient();  // never destroyed
  return *shared;
}

std::string trimmed(const char* text) {
  if (!text) return {};
  std::string value(text);
  while (!value.empty() && (value.back() == '\n' || value.back() == ' ' || value.back() == '\t'))
    value.pop_back();
  return value;
}

// ---- Classes ----------------------------------------------------------------------------
// The firmware of a machine the original maker did not build: its DMI vendor
// is someone else's. The common metrics report that board maker as the vendor.
bool isOtherMakersFirmware(GUdevDevice* device) {
  const std::string vendor = DeviceRegistry::attribute(device, "sys_vendor");
  return !vendor.empty() && vendor.rfind("Apple", 0) != 0;
}

bool isDrmCard(GUdevDevice* device) {
  // card0, card1 (not the connectors card0-HDMI-A-1, nor renderD128)
  const char* name = g_udev_device_get_name(device);
  if (!name || std::strncmp(name, "card", 4) != 0 || name[4] == '\0') return false;
  for (const char* p = name + 4; *p; ++p) {
    if (*p < '0' || *p > '9') return false;
  }
  return true;
}

bool isPhysicalDisk(GUdevDevice* device) {
  // Whole disks with hardware under them: not partitions, and none of the
  // kernel's virtual block devices (loop, ram, zram, device-mapper).
  const char* type = g_udev_device_get_devtype(device);
  const char* path = g_udev_device_get_sysfs_path(device);
  return type && std::strcmp(type, "disk") == 0 && path && !std::strstr(path, "/devices/virtual/");
}

bool isUsbDevice(GUdevDevice* device) {
  const char* type = g_udev_device_get_devtype(device);
  return type && std::strcmp(type, "usb_device") == 0;
}

bool isDisplayController(GUdevDevice* device) {
  // PCI class 0x03xxxx: display controllers
  return DeviceRegistry::attribute(device, "class").rfind("0x03", 0) == 0;
}

bool hasAncestorInSubsystem(GUdevDevice* device, std::initializer_list<const char*> subsystems) {
  UdevDevice current(g_udev_device_get_parent(device));
  while (current) {
    const char* subsystem = g_udev_device_get_subsystem(current.get());
    for (const char* wanted : subsystems) {
      if (subsystem && std::strcmp(subsystem, wanted) == 0) return true;
    }
    current.reset(g_udev_device_get_parent(current.get()));
  }
  return false;
}

// An unsigned number from hexadecimal attribute text ("0x10de"); absent when it is not one.
PXValue hexAttribute(GUdevDevice* device, const char* name) {
  std::string text = DeviceRegistry::attribute(device, name);
  if (text.rfind("0x", 0) == 0) text.erase(0, 2);
  unsigned long long value = 0;
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value, 16);
  if (text.empty() || ec != std::errc() || end != text.data() + text.size()) return {};
  return PXValue(value);
}

// A non-negative whole number from attribute or property text: decimal, or
// hexadecimal after "0x"; absent for anything else.
std::optional<uint64_t> numberFromText(std::string_view text) {
  int base = 10;
  if (text.starts_with("0x") || text.starts_with("0X")) {
    text.remove_prefix(2);
    base = 16;
  }
  uint64_t value = 0;
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value, base);
  if (text.empty() || ec != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

const char* udevProperty(GUdevDevice* device, const char* key) {
  const char* value = g_udev_device_get_property(device, key);
  return value && *value ? value : nullptr;
}

// The registry-style properties of a device, by class.
void addRegistryProperties(GUdevDevice* device, PXMutableDictionary& out) {
  const char* subsystem = g_udev_device_get_subsystem(device);
  if (!subsystem) return;
  const std::string_view sub(subsystem);
  if (sub == "dmi") {
    if (std::string model = DeviceRegistry::attribute(device, "product_name"); !model.empty()) {
      out.setObject(model, "model");
    }
    if (std::string vendor = DeviceRegistry::attribute(device, "sys_vendor"); !vendor.empty()) {
      out.setObject(vendor, "manufacturer");
    }
    if (std::string board = DeviceRegistry::attribute(device, "board_vendor"); !board.empty()) {
      out.setObject(board, "mb-manufacturer");
    }
  } else if (sub == "pci") {
    if (PXValue vendor = hexAttribute(device, "vendor")) out.setObject(vendor, "vendor-id");
    if (PXValue product = hexAttribute(device, "device")) out.setObject(product, "device-id");
    if (PXValue cls = hexAttribute(device, "class")) out.setObject(cls, "class-code");
    if (const char* model = udevProperty(device, "ID_MODEL_FROM_DATABASE")) out.setObject(model, "model");
  } else if (sub == "block" && isPhysicalDisk(device)) {
    auto characteristics = PXMutableDictionary::dictionary();
    const std::string rotational = DeviceRegistry::attribute(device, "queue/rotational");
    if (!rotational.empty()) {
      characteristics->setObject(rotational == "0" ? "Solid State" : "Rotational", "Medium Type");
    }
    if (std::string model = DeviceRegistry::attribute(device, "device/model"); !model.empty()) {
      characteristics->setObject(model, "Product Name");
    }
    out.setObject(characteristics, "Device Characteristics");
    auto protocol = PXMutableDictionary::dictionary();
    const bool external = hasAncestorInSubsystem(device, {"usb", "thunderbolt", "ieee1394", "firewire"});
    protocol->setObject(external ? "External" : "Internal", "Physical Interconnect Location");
    if (const char* bus = udevProperty(device, "ID_BUS")) protocol->setObject(bus, "Physical Interconnect");
    out.setObject(protocol, "Protocol Characteristics");
  } else if (sub == "power_supply") {
    PowerSupply supply{
        trimmed(g_udev_device_get_name(device)), trimmed(g_udev_device_get_sysfs_path(device)), {}};
    for (const char* key :
         {"type", "scope", "online", "status", "present", "capacity", "time_to_empty_now"}) {
      if (std::string value = DeviceRegistry::attribute(device, key); !value.empty()) {
        supply.attributes.emplace(key, std::move(value));
      }
    }
    // A battery's own description; its state counts no line power, which
    // lives in other devices (the power source observer sees them all).
    if (PXRef<PXDictionary> description = powerSourceDescription(supply, false))
      out.addEntriesFromDictionary(*description);
  }
}

}  // namespace

// ---- Handles -----------------------------------------------------------------------------

uint32_t DeviceRegistry::handleForSysfsPath(std::string_view sysfsPath) {
  if (sysfsPath.empty()) return 0;
  HandleTable& table = handles();
  std::lock_guard guard(table.lock);
  auto [it, added] =
      table.byPath.try_emplace(std::string(sysfsPath), static_cast<uint32_t>(table.paths.size()));
  if (added) table.paths.emplace_back(sysfsPath);
  return it->second;
}

std::string DeviceRegistry::sysfsPath(uint32_t handle) {
  HandleTable& table = handles();
  std::lock_guard guard(table.lock);
  return handle < table.paths.size() ? table.paths[handle] : std::string();
}

bool DeviceRegistry::isKnownHandle(uint32_t handle) noexcept {
  HandleTable& table = handles();
  std::lock_guard guard(table.lock);
  return handle != 0 && handle < table.paths.size();
}

UdevDevice DeviceRegistry::device(uint32_t handle) {
  const std::string path = sysfsPath(handle);
  return path.empty() ? UdevDevice() : deviceAtPath(path.c_str());
}

UdevDevice DeviceRegistry::deviceAtPath(const char* sysfsPath) {
  if (!sysfsPath || !*sysfsPath) return {};
  QueryClient& q = queryClient();
  std::lock_guard guard(q.lock);
  return UdevDevice(g_udev_client_query_by_sysfs_path(q.client.get(), sysfsPath));
}

std::string DeviceRegistry::attribute(GUdevDevice* device, const char* name) {
  return device ? trimmed(g_udev_device_get_sysfs_attr(device, name)) : std::string();
}

// ---- Classes --------------------------------------------------------------------------------

const std::vector<DeviceClass>& DeviceRegistry::classes() {
  // Most specific first; docs/linux-sources.md has the same table in words.
  static const std::vector<DeviceClass> table = {
      {"IOPlatformExpertDevice", "dmi", nullptr},
      {"IOAccelerator", "drm", &isDrmCard},
      {"IOBlockStorageDevice", "block", &isPhysicalDisk},
      {"IOMedia", "block", nullptr},
      {"IOPCIDevice", "pci", nullptr},
      {"IOUSBDevice", "usb", &isUsbDevice},
      {"IOPMPowerSource", "power_supply", nullptr},
      {"IONetworkInterface", "net", nullptr},
      {"IODisplayController", "pci", &isDisplayController},
      {"FakeSMC", "dmi", &isOtherMakersFirmware},
      {"IOService", nullptr, nullptr},
  };
  return table;
}

const DeviceClass* DeviceRegistry::deviceClass(std::string_view name) {
  for (const DeviceClass& cls : classes()) {
    if (name == cls.name) return &cls;
  }
  return nullptr;
}

namespace {
bool classMatches(const DeviceClass& cls, GUdevDevice* device) {
  if (!cls.subsystem) return true;
  const char* subsystem = g_udev_device_get_subsystem(device);
  if (!*cls.subsystem || !subsystem || std::strcmp(subsystem, cls.subsystem) != 0) return false;
  return !cls.matches || cls.matches(device);
}
}  // namespace

const DeviceClass& DeviceRegistry::classOfDevice(GUdevDevice* device) {
  for (const DeviceClass& cls : classes()) {
    if (classMatches(cls, device)) return cls;
  }
  return classes().back();
}

bool DeviceRegistry::conformsTo(GUdevDevice* device, std::string_view name) {
  const DeviceClass* cls = deviceClass(name);
  return device && cls && classMatches(*cls, device);
}

// ---- Matching -------------------------------------------------------------------------------

bool DeviceRegistry::matches(GUdevDevice* device, const PXDictionary& matching) {
  if (!device) return false;
  for (const auto& [key, value] : matching) {
    const std::string_view name = key.stringValue();
    const std::string_view wanted = value.stringValue();
    if (name == "IOProviderClass") {
      if (const DeviceClass* cls = deviceClass(wanted)) {
        if (!classMatches(*cls, device)) return false;
      } else {
        const char* subsystem = g_udev_device_get_subsystem(device);
        if (!subsystem || wanted != subsystem) return false;
      }
    } else if (name == "IONameMatch") {
      const char* sysname = g_udev_device_get_name(device);
      if (!sysname || wanted != sysname) return false;
    } else {
      const std::string keyText(name);
      const char* property = udevProperty(device, keyText.c_str());
      const std::string actual = property ? std::string(property) : attribute(device, keyText.c_str());
      if (!property && actual.empty()) {
        // Not a udev property or attribute: a registry-style one ("vendor-id").
        const PXValue derived = DeviceRegistry::property(device, name);
        if (!derived || !(value.isNumber() ? derived.isNumber() && derived.isEqual(value)
                                           : derived.isString() && derived.stringValue() == wanted)) {
          return false;
        }
      } else if (value.isNumber()) {
        // Numbers compare as numbers: 0x10de, "0x10de" and "4318" are one value.
        const std::optional<uint64_t> number = numberFromText(actual);
        if (!number || !PXValue(*number).isEqual(value)) return false;
      } else if (actual != wanted) {
        return false;
      }
    }
  }
  return true;
}

std::vector<UdevDevice> DeviceRegistry::devicesMatching(const PXDictionary& matching) {
  // Narrow the enumeration to one subsystem when the dictionary names one.
  std::string subsystem;
  if (const PXValue* provider = matching.findStringKey("IOProviderClass")) {
    const DeviceClass* cls = deviceClass(provider->stringValue());
    if (cls && cls->subsystem && !*cls->subsystem) return {};  // a class with no devices here
    subsystem = cls ? (cls->subsystem ? cls->subsystem : "") : std::string(provider->stringValue());
  }
  GList* list = nullptr;
  {
    QueryClient& q = queryClient();
    std::lock_guard guard(q.lock);
    list = g_udev_client_query_by_subsystem(q.client.get(), subsystem.empty() ? nullptr : subsystem.c_str());
  }
  std::vector<UdevDevice> found;
  for (GList* item = list; item; item = item->next) {
    UdevDevice device(static_cast<GUdevDevice*>(item->data));  // adopts the list's reference
    if (matches(device.get(), matching)) found.push_back(std::move(device));
  }
  g_list_free(list);
  std::sort(found.begin(), found.end(), [](const UdevDevice& a, const UdevDevice& b) {
    return std::strcmp(g_udev_device_get_sysfs_path(a.get()), g_udev_device_get_sysfs_path(b.get())) < 0;
  });
  return found;
}

namespace {
// Devices at and below the directory `fd` (taken over and closed; see
// countDevices). Opened relative to their parent, so no path is walked twice;
// symbolic links are not followed. A device's "power" directory holds its power
// management attributes and is never a device (one of that name could not be
// made beside it), so it is not opened: a fifth of the walk on a typical machine.
size_t countDevicesBelow(int fd) {
  DIR* stream = fdopendir(fd);
  if (!stream) {
    close(fd);
    return 0;
  }
  size_t count = 0;
  bool uevent = false, subsystem = false;
  while (const dirent* entry = readdir(stream)) {
    const std::string_view name(entry->d_name);
    if (entry->d_type == DT_DIR && name != "." && name != ".." && name != "power") {
      const int child = openat(dirfd(stream), entry->d_name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
      if (child >= 0) count += countDevicesBelow(child);
    } else if (entry->d_type == DT_REG && name == "uevent") {
      uevent = true;
    } else if (entry->d_type == DT_LNK && name == "subsystem") {
      subsystem = true;
    }
  }
  closedir(stream);
  return count + (uevent && subsystem ? 1 : 0);
}
}  // namespace

size_t DeviceRegistry::countDevices(const DeviceClass& cls) {
  if (!cls.subsystem) {
    const int fd = open("/sys/devices", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    return fd < 0 ? 0 : countDevicesBelow(fd);
  }
  auto matching = PXDictionary::dictionaryWithEntries({{"IOProviderClass", cls.name}});
  return devicesMatching(*matching).size();
}

// ---- Properties --------------------------------------------------------------------------------

PXRef<PXDictionary> DeviceRegistry::properties(GUdevDevice* device) {
  if (!device) return {};
  auto out = PXMutableDictionary::dictionary();
  if (const gchar* const* keys = g_udev_device_get_sysfs_attr_keys(device)) {
    for (const gchar* const* key = keys; *key; ++key) {
      // Only readable text: write-only files and binary blobs are left out.
      const char* value = g_udev_device_get_sysfs_attr(device, *key);
      if (value && g_utf8_validate(value, -1, nullptr)) out->setObject(trimmed(value), *key);
    }
  }
  if (const gchar* const* keys = g_udev_device_get_property_keys(device)) {
    for (const gchar* const* key = keys; *key; ++key) {
      if (const char* value = g_udev_device_get_property(device, *key)) out->setObject(value, *key);
    }
  }
  addRegistryProperties(device, *out);
  return out;
}

PXValue DeviceRegistry::property(GUdevDevice* device, std::string_view name) {
  if (!device || name.empty()) return {};
  auto registry = PXMutableDictionary::dictionary();
  addRegistryProperties(device, *registry);
  if (PXValue value = registry->objectForKey(name)) return value;
  const std::string key(name);
  if (const char* value = g_udev_device_get_property(device, key.c_str())) return PXValue(value);
  if (key.find("..") != std::string::npos || key.front() == '/') return {};  // stays inside the device
  if (const char* value = g_udev_device_get_sysfs_attr(device, key.c_str())) return PXValue(trimmed(value));
  return {};
}

// ---- Events -----------------------------------------------------------------------------------

struct DeviceEvents::Impl {
  Handler handler;
  const char* source = "";
  // udev: a client whose uevent source sits on the loop's context
  glib::Object<GUdevClient> client;
  gulong signalId = 0;
  // kernel: libudev's monitor of the kernel's broadcast
  struct udev* udev = nullptr;
  struct udev_monitor* monitor = nullptr;
  FdWatch watch;

  ~Impl() {
    if (signalId != 0) g_signal_handler_disconnect(client.get(), signalId);
    watch.reset();
    if (monitor) udev_monitor_unref(monitor);
    if (udev) udev_unref(udev);
  }

  static void onUevent(GUdevClient*, const gchar* action, GUdevDevice* device, gpointer data) {
    auto* self = static_cast<Impl*>(data);
    DeviceEvent event{action, g_udev_device_get_sysfs_path(device), g_udev_device_get_subsystem(device),
                      device};
    if (event.action && event.sysfsPath) self->handler(event);
  }

  void readKernelEvents() {
    while (struct udev_device* raw = udev_monitor_receive_device(monitor)) {
      const char* action = udev_device_get_action(raw);
      const char* path = udev_device_get_syspath(raw);
      if (action && path) {
        const bool removed = std::strcmp(action, "remove") == 0;
        UdevDevice device = removed ? UdevDevice() : DeviceRegistry::deviceAtPath(path);
        DeviceEvent event{action, path, udev_device_get_subsystem(raw), device.get()};
        handler(event);
      }
      udev_device_unref(raw);
    }
  }
};

DeviceEvents::DeviceEvents() noexcept = default;
DeviceEvents::DeviceEvents(DeviceEvents&&) noexcept = default;
DeviceEvents& DeviceEvents::operator=(DeviceEvents&&) noexcept = default;
DeviceEvents::~DeviceEvents() = default;

const char* DeviceEvents::source() const noexcept {
  return impl_ ? impl_->source : "";
}

bool DeviceEvents::udevEventsAvailable() {
  const char* preload = std::getenv("LD_PRELOAD");
  if (preload && std::strstr(preload, "libumockdev-preload")) return true;  // a device testbed
  return access("/run/udev/control", F_OK) == 0;
}

DeviceEvents DeviceEvents::start(PXRunLoop* loop, Handler handler, const char* subsystem) {
  DeviceEvents events;
  if (!loop || !handler) return events;
  auto impl = std::make_unique<Impl>();
  impl->handler = std::move(handler);
  if (udevEventsAvailable()) {
    GMainContext* context = loop->context()->glib;
    g_main_context_push_thread_default(context);
    // An empty list is every subsystem (a null list would listen to nothing).
    const gchar* const subsystems[] = {subsystem, nullptr};
    impl->client.reset(g_udev_client_new(subsystems));
    g_main_context_pop_thread_default(context);
    impl->signalId = g_signal_connect(impl->client.get(), "uevent", G_CALLBACK(&Impl::onUevent), impl.get());
    impl->source = "udev";
  } else {
    // No udev daemon: the kernel's own broadcast still carries every uevent.
    impl->udev = udev_new();
    impl->monitor = impl->udev ? udev_monitor_new_from_netlink(impl->udev, "kernel") : nullptr;
    if (impl->monitor && subsystem)
      udev_monitor_filter_add_match_subsystem_devtype(impl->monitor, subsystem, nullptr);
    if (!impl->monitor || udev_monitor_enable_receiving(impl->monitor) < 0) {
      PXLogWithLevel(PXLogLevel::Debug, "device events: no kernel uevent monitor");
      return events;
    }
    Impl* raw = impl.get();
    impl->watch = FdWatch::watch(loop, udev_monitor_get_fd(impl->monitor), kFdReadable,
                                 [raw](unsigned) { raw->readKernelEvents(); });
    if (!impl->watch) return events;
    impl->source = "kernel";
  }
  events.impl_ = std::move(impl);
  return events;
}

}  // namespace pxkit::internal
