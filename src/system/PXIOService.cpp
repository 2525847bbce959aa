// PXIOService on the device registry (system/internal/DeviceRegistry).
#include <pxkit/platform/PXRunLoop.h>
#include <pxkit/system/PXIOService.h>

#include <algorithm>
#include <cstring>
#include <string>

#include "system/internal/DeviceRegistry.h"

using pxkit::internal::DeviceClass;
using pxkit::internal::DeviceEvent;
using pxkit::internal::DeviceEvents;
using pxkit::internal::DeviceRegistry;
using pxkit::internal::UdevDevice;

const char* const kPXIOProviderClassKey = "IOProviderClass";

PX_DEFINE_CLASS(PXIOService, PXObject, [](PXClassBuilder<PXIOService>&) {})

// ---- IOServiceTools ----------------------------------------------------------------------

PXValue IOServiceTools::valueWithIOObject(uint32_t object) {
  return PXValue(static_cast<unsigned>(object));
}

uint32_t IOServiceTools::IOObject(const PXValue& value) {
  if (value.kind() != PXValue::Kind::UInt && value.kind() != PXValue::Kind::Int) return 0;
  return static_cast<uint32_t>(value.unsignedLongLongValue());
}

// ---- Finding ---------------------------------------------------------------------------------

namespace {
PXRef<PXArray> wrapAll(const std::vector<UdevDevice>& devices) {
  auto services = PXMutableArray::array();
  for (const UdevDevice& device : devices) {
    const uint32_t handle = DeviceRegistry::handleForSysfsPath(g_udev_device_get_sysfs_path(device.get()));
    if (PXRef<PXIOService> service = PXIOService::serviceWithIOService(handle)) services->addObject(service);
  }
  return services;
}
}  // namespace

PXRef<PXIOService> PXIOService::serviceWithIOService(uint32_t service) {
  if (!DeviceRegistry::isKnownHandle(service)) return {};
  return PXMake<PXIOService>(service);
}

PXRef<PXIOService> PXIOService::serviceWithSysfsPath(std::string_view sysfsPath) {
  const std::string path(sysfsPath);
  UdevDevice device = DeviceRegistry::deviceAtPath(path.c_str());
  if (!device) return {};
  return serviceWithIOService(DeviceRegistry::handleForSysfsPath(g_udev_device_get_sysfs_path(device.get())));
}

PXRef<PXArray> PXIOService::servicesForMatchingClass(const char* className) {
  if (!className) return {};
  auto matching = PXDictionary::dictionaryWithEntries({{kPXIOProviderClassKey, className}});
  return servicesForMatchingDict(*matching);
}

PXRef<PXArray> PXIOService::servicesForMatchingDict(const PXDictionary& matching) {
  return wrapAll(DeviceRegistry::devicesMatching(matching));
}

std::vector<std::string> PXIOService::registryClassNames() {
  std::vector<std::string> names;
  for (const DeviceClass& cls : DeviceRegistry::classes()) names.emplace_back(cls.name);
  return names;
}

size_t PXIOService::countServicesForMatchingClass(const char* className) {
  if (!className) return 0;
  if (const DeviceClass* cls = DeviceRegistry::deviceClass(className))
    return DeviceRegistry::countDevices(*cls);
  PXRef<PXArray> services = servicesForMatchingClass(className);
  return services ? services->count() : 0;
}

PXIOService::PXIOService(uint32_t service) : service_(DeviceRegistry::isKnownHandle(service) ? service : 0) {}

PXIOService::~PXIOService() {
  invalidate();
}

// ---- Reading ---------------------------------------------------------------------------------

std::string PXIOService::sysfsPath() const {
  return DeviceRegistry::sysfsPath(service_);
}

PXValue PXIOService::valueForProperty(std::string_view name) const {
  UdevDevice device = DeviceRegistry::device(service_);
  return DeviceRegistry::property(device.get(), name);
}

PXRef<PXDictionary> PXIOService::properties() const {
  UdevDevice device = DeviceRegistry::device(service_);
  return DeviceRegistry::properties(device.get());
}

int32_t PXIOService::setValue(const PXValue&, std::string_view) {
  return kPXIOReturnUnsupported;
}

int32_t PXIOService::setProperties(const PXDictionary&) {
  return kPXIOReturnUnsupported;
}

PXString PXIOService::serviceClass() const {
  UdevDevice device = DeviceRegistry::device(service_);
  if (!device) return {};
  return PXString(DeviceRegistry::classOfDevice(device.get()).name);
}

bool PXIOService::conformsToIOClass(const char* className) const {
  if (!className) return false;
  // The registry's class names are ASCII and shorter than 128 characters.
  const size_t length = std::strlen(className);
  if (length >= 128) return false;
  if (std::any_of(className, className + length,
                  [](char c) { return static_cast<unsigned char>(c) > 0x7F; })) {
    return false;
  }
  UdevDevice device = DeviceRegistry::device(service_);
  return DeviceRegistry::conformsTo(device.get(), std::string_view(className, length));
}

PXRef<PXIOService> PXIOService::parentService() const {
  UdevDevice device = DeviceRegistry::device(service_);
  if (!device) return {};
  UdevDevice parent(g_udev_device_get_parent(device.get()));
  if (!parent) return {};
  return serviceWithIOService(DeviceRegistry::handleForSysfsPath(g_udev_device_get_sysfs_path(parent.get())));
}

PXRef<PXArray> PXIOService::childServices() const {
  const std::string path = sysfsPath();
  if (path.empty() || !DeviceRegistry::device(service_)) return {};
  std::vector<UdevDevice> children;
  for (UdevDevice& device : DeviceRegistry::devicesMatching(*PXDictionary::dictionary())) {
    UdevDevice parent(g_udev_device_get_parent(device.get()));
    if (parent && path == g_udev_device_get_sysfs_path(parent.get())) children.push_back(std::move(device));
  }
  if (children.empty()) return {};
  return wrapAll(children);
}

// ---- Notifications ------------------------------------------------------------------------------

struct PXIOService::Watch {
  DeviceEvents events;
};

void PXIOService::addNotificationListener(PXIOServiceNotificationListener* listener) {
  if (!listener || service_ == 0) return;
  if (!watch_) {
    watch_ = std::make_unique<Watch>();
    const std::string path = sysfsPath();
    // The watch lives no longer than this service: it may hold `this`.
    watch_->events = DeviceEvents::start(PXRunLoop::current(), [this, path](const DeviceEvent& event) {
      if (path != event.sysfsPath) return;
      const std::string_view action(event.action);
      if (action == "add") return;  // the device is there already
      deliver(action == "remove" ? kPXIOMessageServiceIsTerminated : kPXIOMessageServicePropertyChange,
              event.action);
    });
  }
  listeners_.push_back(listener);
}

void PXIOService::removeNotificationListener(PXIOServiceNotificationListener* listener) {
  if (!listener || listeners_.empty()) return;
  std::erase(listeners_, listener);
  if (listeners_.empty()) watch_.reset();
}

void PXIOService::deliver(uint32_t messageType, const char* action) {
  PXRef<PXIOService> self(this);  // a listener may drop the last other reference
  // In list order, as the list stood when the message arrived; a listener
  // removed meanwhile is not called.
  const std::vector<PXIOServiceNotificationListener*> snapshot = listeners_;
  for (PXIOServiceNotificationListener* listener : snapshot) {
    if (std::find(listeners_.begin(), listeners_.end(), listener) == listeners_.end()) continue;
    listener->service(this, messageType, const_cast<char*>(action));
  }
}

void PXIOService::invalidate() {
  listeners_.clear();
  watch_.reset();
  service_ = 0;
}

// ---- Equality --------------------------------------------------------------------------------

bool PXIOService::isEqual(const PXObject& other) const {
  if (this == &other) return true;
  const auto* service = dynamic_cast<const PXIOService*>(&other);
  return service && service->service_ != 0 && service->service_ == service_;
}

PXString PXIOService::description() const {
  return PXString("<PXIOService " + std::to_string(service_) + " " + sysfsPath() + ">");
}
