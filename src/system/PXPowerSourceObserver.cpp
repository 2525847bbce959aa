// The power source observer on sysfs power supplies and UPower.
//
// A Watch, shared between the observer and the blocks and callbacks on the
// main run loop, follows the system: device events of the power_supply
// subsystem, and UPower's signals through a system-bus watcher. While UPower
// owns its name, its devices (read when it appears and after each of its
// signals) are the power supplies; otherwise sysfs is read.
#include <pxkit/objects/PXRef.h>
#include <pxkit/platform/PXDispatchQueue.h>
#include <pxkit/platform/PXNotificationCenter.h>
#include <pxkit/platform/PXRunLoop.h>
#include <pxkit/system/PXPowerSourceObserver.h>

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/internal/SystemBus.h"
#include "system/internal/DeviceRegistry.h"
#include "system/internal/PowerSupply.h"

using pxkit::internal::DeviceEvent;
using pxkit::internal::DeviceEvents;
using pxkit::internal::DeviceRegistry;
using pxkit::internal::PowerSupply;
using pxkit::internal::UdevDevice;

const char* const kPXPowerSourceObserverChangeNotification = "PXPowerSourceObserverChangeNotification";

PX_DEFINE_CLASS(PXPowerSourceObserver, PXObject, [](PXClassBuilder<PXPowerSourceObserver>& c) {
  c.computed("currentPowerSource", &PXPowerSourceObserver::currentPowerSource, nullptr,
             PXPropertyOwnership::Retain, "@\"NSString\"");
  c.computed("currentPowerSourceInfo", &PXPowerSourceObserver::currentPowerSourceInfo, nullptr,
             PXPropertyOwnership::Retain, "@\"NSDictionary\"");
})

namespace {

constexpr const char* kUPowerName = "org.freedesktop.UPower";
constexpr int kUPowerCallTimeoutMs = 2000;

// The sysfs power supplies, in sysfs order.
std::vector<PowerSupply> sysfsPowerSupplies() {
  std::vector<PowerSupply> supplies;
  auto matching = PXDictionary::dictionaryWithEntries({{"IOProviderClass", "power_supply"}});
  for (const UdevDevice& device : DeviceRegistry::devicesMatching(*matching)) {
    PowerSupply supply{g_udev_device_get_name(device.get()), g_udev_device_get_sysfs_path(device.get()), {}};
    for (const char* key :
         {"type", "scope", "online", "status", "present", "capacity", "time_to_empty_now"}) {
      if (std::string value = DeviceRegistry::attribute(device.get(), key); !value.empty()) {
        supply.attributes.emplace(key, std::move(value));
      }
    }
    supplies.push_back(std::move(supply));
  }
  return supplies;
}

pxkit::glib::Variant callUPower(GDBusConnection* bus, const char* path, const char* interface,
                                const char* method, GVariant* args, const char* replyType) {
  return pxkit::glib::Variant(g_dbus_connection_call_sync(bus, kUPowerName, path, interface, method, args,
                                                          G_VARIANT_TYPE(replyType), G_DBUS_CALL_FLAGS_NONE,
                                                          kUPowerCallTimeoutMs, nullptr, nullptr));
}

// UPower's devices as power supplies: batteries and UPSes with the words
// sysfs would use, and one line power that is online unless UPower says the
// machine runs on battery. Empty when UPower does not answer.
std::optional<std::vector<PowerSupply>> upowerPowerSupplies(GDBusConnection* bus) {
  pxkit::glib::Variant onBatteryReply =
      callUPower(bus, "/org/freedesktop/UPower", "org.freedesktop.DBus.Properties", "Get",
                 g_variant_new("(ss)", kUPowerName, "OnBattery"), "(v)");
  pxkit::glib::Variant devicesReply =
      callUPower(bus, "/org/freedesktop/UPower", kUPowerName, "EnumerateDevices", nullptr, "(ao)");
  if (!devicesReply) return std::nullopt;
  bool onBattery = false;
  if (onBatteryReply) {
    GVariant* boxed = nullptr;
    g_variant_get(onBatteryReply.get(), "(v)", &boxed);
    onBattery = g_variant_is_of_type(boxed, G_VARIANT_TYPE_BOOLEAN) && g_variant_get_boolean(boxed);
    g_variant_unref(boxed);
  }
  std::vector<PowerSupply> supplies;
  supplies.push_back({"line_power", "", {{"type", "Mains"}, {"online", onBattery ? "0" : "1"}}});
  GVariantIter* paths = nullptr;
  g_variant_get(devicesReply.get(), "(ao)", &paths);
  const char* path = nullptr;
  while (g_variant_iter_next(paths, "&o", &path)) {
    pxkit::glib::Variant all = callUPower(bus, path, "org.freedesktop.DBus.Properties", "GetAll",
                                          g_variant_new("(s)", "org.freedesktop.UPower.Device"), "(a{sv})");
    if (!all) continue;
    GVariant* dict = g_variant_get_child_value(all.get(), 0);
    guint32 type = 0, state = 0;
    gboolean powerSupply = FALSE, present = TRUE;
    gdouble percentage = -1;
    gint64 timeToEmpty = 0;
    const char* nativePath = nullptr;
    g_variant_lookup(dict, "Type", "u", &type);
    g_variant_lookup(dict, "State", "u", &state);
    g_variant_lookup(dict, "PowerSupply", "b", &powerSupply);
    g_variant_lookup(dict, "IsPresent", "b", &present);
    g_variant_lookup(dict, "Percentage", "d", &percentage);
    g_variant_lookup(dict, "TimeToEmpty", "x", &timeToEmpty);
    g_variant_lookup(dict, "NativePath", "&s", &nativePath);
    // UPower's device types: 2 battery, 3 UPS; states: 1 charging, 2 discharging,
    // 3 empty, 4 fully charged, 5 pending charge, 6 pending discharge.
    if (type == 2 || type == 3) {
      static constexpr const char* kStatus[] = {"Unknown", "Charging",     "Discharging", "Discharging",
                                                "Full",    "Not charging", "Discharging"};
      PowerSupply supply{nativePath && *nativePath ? nativePath : path, path, {}};
      supply.attributes = {{"type", type == 3 ? "UPS" : "Battery"},
                           {"scope", powerSupply ? "System" : "Device"},
                           {"present", present ? "1" : "0"},
                           {"status", kStatus[state < 7 ? state : 0]}};
      if (percentage >= 0)
        supply.attributes.emplace("capacity", std::to_string(static_cast<int>(percentage + 0.5)));
      if (timeToEmpty > 0) supply.attributes.emplace("time_to_empty_now", std::to_string(timeToEmpty));
      supplies.push_back(std::move(supply));
    }
    g_variant_unref(dict);
  }
  g_variant_iter_free(paths);
  return supplies;
}

}  // namespace

// ---- Following the system --------------------------------------------------------------------

struct PXPowerSourceObserver::Watch : std::enable_shared_from_this<Watch> {
  explicit Watch(PXPowerSourceObserver* observer) : owner(observer) {}

  // On the main run loop.
  void start() {
    std::weak_ptr<Watch> weak = weak_from_this();
    events = DeviceEvents::start(
        PXRunLoop::main(),
        [weak](const DeviceEvent& event) {
          if (!event.subsystem || std::string_view(event.subsystem) != "power_supply") return;
          if (auto self = weak.lock()) self->changed();
        },
        "power_supply");
    pxkit::internal::SystemBusWatcher watcher;
    watcher.busName = kUPowerName;
    watcher.signals = {{kUPowerName, "DeviceAdded", ""},
                       {kUPowerName, "DeviceRemoved", ""},
                       {"org.freedesktop.DBus.Properties", "PropertiesChanged", ""}};
    watcher.nameAppeared = [weak](GDBusConnection* connection, const char*) {
      if (auto self = weak.lock()) {
        self->bus.reset(G_DBUS_CONNECTION(g_object_ref(connection)));
        self->readUPower();
      }
    };
    watcher.nameVanished = [weak] {
      if (auto self = weak.lock()) {
        self->setUPower(std::nullopt);
        self->bus.reset();
        self->changed();
      }
    };
    watcher.signal = [weak](const pxkit::internal::SystemBusSignal&) {
      if (auto self = weak.lock()) self->readUPower();
    };
    upower = pxkit::internal::SystemBus::watch(std::move(watcher), g_main_context_default());
  }

  void readUPower() {
    if (!bus) return;
    setUPower(upowerPowerSupplies(bus.get()));
    changed();
  }

  void changed() {
    if (PXRef<PXPowerSourceObserver> observer = owner.lock()) observer->_updateProperties();
  }

  void setUPower(std::optional<std::vector<PowerSupply>> supplies) {
    std::lock_guard guard(lock);
    upowerSupplies = std::move(supplies);
  }

  // UPower's supplies while it answers, else sysfs's.
  std::vector<PowerSupply> supplies() {
    {
      std::lock_guard guard(lock);
      if (upowerSupplies) return *upowerSupplies;
    }
    return sysfsPowerSupplies();
  }

  PXWeakRef<PXPowerSourceObserver> owner;
  DeviceEvents events;                       // main thread
  pxkit::internal::SystemBusWatch upower;    // any thread
  pxkit::glib::Object<GDBusConnection> bus;  // main thread
  std::mutex lock;
  std::optional<std::vector<PowerSupply>> upowerSupplies;  // guarded by lock
};

// ---- Instances ---------------------------------------------------------------------------------

PXPowerSourceObserver* PXPowerSourceObserver::sharedPowerSource() {
  static PXDispatchOnceToken once;
  static PXPowerSourceObserver* shared = nullptr;
  PXDispatchOnce(once, [] { shared = PXMake<PXPowerSourceObserver>().detach(); });  // never released
  return shared;
}

PXPowerSourceObserver::PXPowerSourceObserver() : watch_(std::make_shared<Watch>(this)) {
  _updateProperties();
  std::weak_ptr<Watch> weak = watch_;
  PXRunLoop::main()->performBlock([weak] {
    if (auto watch = weak.lock()) watch->start();
  });
}

PXPowerSourceObserver::~PXPowerSourceObserver() {
  std::shared_ptr<Watch> watch = std::move(watch_);
  if (watch) {
    watch->upower.reset();
    watch->events = DeviceEvents();
  }
}

// ---- Properties ------------------------------------------------------------------------------------

PXString PXPowerSourceObserver::currentPowerSource() const {
  return getAtomic(lock_, currentPowerSource_);
}

PXRef<PXDictionary> PXPowerSourceObserver::currentPowerSourceInfo() const {
  return getAtomic(lock_, currentPowerSourceInfo_);
}

PXRef<PXDictionary> PXPowerSourceObserver::_currentPowerSourceInfo() const {
  const std::vector<PowerSupply> supplies = watch_ ? watch_->supplies() : sysfsPowerSupplies();
  return pxkit::internal::internalPowerSource(pxkit::internal::powerSourceDescriptions(supplies));
}

void PXPowerSourceObserver::_updateProperties() {
  PXRef<PXDictionary> info = _currentPowerSourceInfo();
  PXString state;
  if (info) state = info->objectForKey(pxkit::internal::kPowerSourceStateKey).stringObject();
  // Observers of the description hear of every reading, changed or not.
  willChangeValueForKey("currentPowerSourceInfo");
  {
    std::lock_guard guard(lock_);
    currentPowerSourceInfo_ = info;
  }
  didChangeValueForKey("currentPowerSourceInfo");

  PXString newSource = state && !state.empty() ? state : PXString(pxkit::internal::kPowerSourceACPower);
  PXString previous = currentPowerSource();
  if (previous && previous == newSource) return;
  auto userInfo = PXMutableDictionary::dictionary();
  userInfo->setObject(newSource, "new");
  if (previous) userInfo->setObject(previous, "old");
  willChangeValueForKey("currentPowerSource");
  {
    std::lock_guard guard(lock_);
    currentPowerSource_ = newSource;
  }
  didChangeValueForKey("currentPowerSource");
  PXNotificationCenter::defaultCenter()->postNotificationName(kPXPowerSourceObserverChangeNotification, this,
                                                              userInfo);
}
