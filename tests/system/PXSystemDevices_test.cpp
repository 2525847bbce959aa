// Registry services, service queries and the power source on a device
// testbed: a laptop with DMI, a PCI GPU with its DRM card, an SSD, an HDD, a
// USB stick, mains, a built-in battery and a mouse battery. Runs under
// umockdev-wrapper; synthetic uevents play devices appearing, changing and going.
#include <gtest/gtest.h>
#include <pxkit/objects/PXError.h>
#include <pxkit/platform/PXNotificationCenter.h>
#include <pxkit/platform/PXRunLoop.h>
#include <pxkit/system/PXIOService.h>
#include <pxkit/system/PXPowerSourceObserver.h>
#include <pxkit/system/PXServiceQuery.h>

#include <algorithm>
#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "support/PXRunLoopUntil.h"
#include "support/PXUMockdevTestbed.h"

namespace {

struct Laptop {
  PXUMockdevTestbed bed;
  std::string dmi, gpu, card, sata, ssd, hdd, usbHost, usbStick, stick, ac, bat, mouse;

  Laptop() {
    dmi = bed.addDevice("dmi", "id", "",
                        {{"product_name", "Notebook 14"}, {"sys_vendor", "Example Computers"}});
    gpu = bed.addDevice("pci", "0000:00:02.0", "",
                        {{"vendor", "0x8086"}, {"device", "0x0126"}, {"class", "0x030000"}},
                        {{"ID_MODEL_FROM_DATABASE", "Example Graphics 3000"}});
    card = bed.addDevice("drm", "card0", gpu, {}, {{"DEVTYPE", "drm_minor"}});
    sata = bed.addDevice("pci", "0000:00:1f.2", "", {{"vendor", "0x8086"}, {"class", "0x010601"}});
    ssd = bed.addDevice("block", "sda", sata, {{"queue/rotational", "0"}, {"removable", "0"}},
                        {{"DEVTYPE", "disk"}});
    hdd = bed.addDevice("block", "sdb", sata, {{"queue/rotational", "1"}, {"removable", "0"}},
                        {{"DEVTYPE", "disk"}});
    usbHost = bed.addDevice("pci", "0000:00:14.0", "", {{"vendor", "0x8086"}, {"class", "0x0c0330"}});
    usbStick = bed.addDevice("usb", "1-2", usbHost, {{"idVendor", "abcd"}}, {{"DEVTYPE", "usb_device"}});
    stick = bed.addDevice("block", "sdc", usbStick, {{"queue/rotational", "0"}, {"removable", "1"}},
                          {{"DEVTYPE", "disk"}});
    ac = bed.addDevice("power_supply", "AC", "", {{"type", "Mains"}, {"online", "1"}});
    mouse = bed.addDevice(
        "power_supply", "hid-mouse-battery", usbStick,
        {{"type", "Battery"}, {"scope", "Device"}, {"status", "Discharging"}, {"capacity", "40"}});
    bat = bed.addDevice("power_supply", "BAT0", "",
                        {{"type", "Battery"}, {"status", "Charging"}, {"present", "1"}, {"capacity", "80"}});
  }
};

std::vector<std::string> pathsOf(const PXRef<PXArray>& services) {
  std::vector<std::string> out;
  if (!services) return out;
  for (const PXValue& v : *services) out.push_back(static_cast<PXIOService*>(v.objectPointer())->sysfsPath());
  return out;
}

PXRef<PXIOService> at(const std::string& path) {
  return PXIOService::serviceWithSysfsPath(path);
}

struct Recorder : PXIOServiceNotificationListener {
  std::vector<std::pair<uint32_t, std::string>> heard;
  void service(PXIOService*, uint32_t type, void* argument) override {
    heard.emplace_back(type, static_cast<const char*>(argument));
  }
};

}  // namespace

// ---- Services ------------------------------------------------------------------------------------

TEST(PXIOServiceDevices, ClassesFindTheirDevices) {
  PX_SKIP_WITHOUT_UMOCKDEV();
  Laptop m;
  struct Case {
    const char* cls;
    std::vector<std::string> paths;
  };
  for (const Case& c : std::vector<Case>{{"IOPlatformExpertDevice", {m.dmi}},
                                         {"IOAccelerator", {m.card}},
                                         {"IOBlockStorageDevice", {m.ssd, m.hdd, m.stick}},
                                         {"IOPCIDevice", {m.gpu, m.usbHost, m.sata}},
                                         {"IOPMPowerSource", {m.ac, m.bat, m.mouse}},
                                         {"IOUSBDevice", {m.usbStick}},
                                         {"FakeSMC", {m.dmi}},  // another maker's board
                                         {"NoSuchClass", {}}}) {
    std::vector<std::string> want = c.paths;
    std::sort(want.begin(), want.end());
    EXPECT_EQ(pathsOf(PXIOService::servicesForMatchingClass(c.cls)), want) << c.cls;
  }
  EXPECT_FALSE(PXIOService::servicesForMatchingClass(nullptr));
  // Plain keys match udev properties and sysfs attributes.
  auto byAttribute = PXDictionary::dictionaryWithEntries({{"IOProviderClass", "block"}, {"removable", "1"}});
  EXPECT_EQ(pathsOf(PXIOService::servicesForMatchingDict(*byAttribute)), std::vector<std::string>{m.stick});
  int32_t code = -1;
  EXPECT_FALSE(PXServiceQuery::servicesMatchingDictionary(
      *PXServiceQuery::matchingDictionaryForIOServiceClass("NoSuchClass"), &code));
  EXPECT_EQ(code, kPXIOReturnSuccess);
}

TEST(PXIOServiceDevices, NumbersInMatchingDictionariesMatchAsNumbers) {
  PX_SKIP_WITHOUT_UMOCKDEV();
  Laptop m;
  struct Case {
    const char* key;
    PXValue wanted;
    std::vector<std::string> paths;
  };
  for (const Case& c : std::vector<Case>{{"device", PXValue(0x0126), {m.gpu}},    // hex attribute
                                         {"device", PXValue("0x0126"), {m.gpu}},  // text stays text
                                         {"device", PXValue(0x0127), {}},
                                         {"device-id", PXValue(0x0126u), {m.gpu}},  // registry-style
                                         {"class", PXValue(0x010601LL), {m.sata}},
                                         {"removable", PXValue(1), {m.stick}}}) {  // decimal
    auto matching = PXDictionary::dictionaryWithEntries(
        {{"IOProviderClass", c.key == std::string("removable") ? "block" : "pci"}, {c.key, c.wanted}});
    EXPECT_EQ(pathsOf(PXIOService::servicesForMatchingDict(*matching)), c.paths) << c.key;
  }
}

TEST(PXIOServiceDevices, RegistryProperties) {
  PX_SKIP_WITHOUT_UMOCKDEV();
  Laptop m;
  auto sub = [](const PXValue& dict, const char* key) {
    return std::string(dict.dictionaryValue() ? dict.dictionaryValue()->objectForKey(key).stringValue()
                                              : "<none>");
  };
  EXPECT_EQ(at(m.dmi)->valueForProperty("model").stringValue(), "Notebook 14");
  EXPECT_EQ(at(m.dmi)->valueForProperty("manufacturer").stringValue(), "Example Computers");
  EXPECT_EQ(at(m.gpu)->valueForProperty("vendor-id").unsignedLongLongValue(), 0x8086u);
  EXPECT_EQ(at(m.gpu)->valueForProperty("device-id").unsignedLongLongValue(), 0x0126u);
  EXPECT_EQ(at(m.gpu)->valueForProperty("model").stringValue(), "Example Graphics 3000");
  EXPECT_EQ(at(m.card)->parentService()->valueForProperty("model").stringValue(), "Example Graphics 3000");
  struct Disk {
    std::string path;
    const char* medium;
    const char* location;
  };
  for (const Disk& d : std::vector<Disk>{{m.ssd, "Solid State", "Internal"},
                                         {m.hdd, "Rotational", "Internal"},
                                         {m.stick, "Solid State", "External"}}) {
    PXRef<PXIOService> disk = at(d.path);
    EXPECT_EQ(sub(disk->valueForProperty("Device Characteristics"), "Medium Type"), d.medium) << d.path;
    EXPECT_EQ(sub(disk->valueForProperty("Protocol Characteristics"), "Physical Interconnect Location"),
              d.location)
        << d.path;
  }
  EXPECT_EQ(at(m.bat)->valueForProperty("Transport Type").stringValue(), "Internal");
  // Plain sysfs attributes and the whole dictionary.
  EXPECT_EQ(at(m.hdd)->valueForProperty("removable").stringValue(), "0");
  PXRef<PXDictionary> all = at(m.dmi)->properties();
  ASSERT_TRUE(all);
  EXPECT_EQ(all->objectForKey("product_name").stringValue(), "Notebook 14");
  EXPECT_EQ(all->objectForKey("model").stringValue(), "Notebook 14");
  EXPECT_FALSE(at(m.dmi)->valueForProperty("no_such_attribute"));
  EXPECT_FALSE(at(m.dmi)->valueForProperty("../../etc"));
}

TEST(PXIOServiceDevices, ClassTestsParentsAndChildren) {
  PX_SKIP_WITHOUT_UMOCKDEV();
  Laptop m;
  PXRef<PXIOService> ssd = at(m.ssd);
  EXPECT_EQ(ssd->serviceClass(), "IOBlockStorageDevice");
  EXPECT_EQ(at(m.usbHost)->serviceClass(), "IOPCIDevice");
  EXPECT_TRUE(ssd->conformsToIOClass("IOBlockStorageDevice"));
  EXPECT_TRUE(ssd->conformsToIOClass("IOMedia"));
  EXPECT_TRUE(ssd->conformsToIOClass("IOService"));
  EXPECT_FALSE(ssd->conformsToIOClass("IOAccelerator"));
  EXPECT_FALSE(ssd->conformsToIOClass(nullptr));
  EXPECT_FALSE(ssd->conformsToIOClass(std::string(128, 'I').c_str()));
  EXPECT_FALSE(ssd->conformsToIOClass("IOMédia"));

  EXPECT_TRUE(ssd->parentService()->isEqual(*at(m.sata)));
  EXPECT_EQ(pathsOf(at(m.sata)->childServices()), (std::vector<std::string>{m.ssd, m.hdd}));
  EXPECT_FALSE(ssd->childServices());  // a leaf: absent, not empty
  EXPECT_FALSE(at(m.dmi)->parentService());
}

TEST(PXIOServiceDevices, EqualityAndInvalidation) {
  PX_SKIP_WITHOUT_UMOCKDEV();
  Laptop m;
  PXRef<PXIOService> a = at(m.bat), b = at(m.bat), other = at(m.ac);
  EXPECT_NE(a.get(), b.get());
  EXPECT_TRUE(a->isEqual(*b));
  EXPECT_EQ(a->hash(), b->hash());
  EXPECT_FALSE(a->isEqual(*other));
  EXPECT_EQ(IOServiceTools::IOObject(IOServiceTools::valueWithIOObject(a->service())), a->service());
  EXPECT_TRUE(PXIOService::serviceWithIOService(a->service())->isEqual(*a));
  EXPECT_FALSE(PXIOService::serviceWithIOService(0));
  EXPECT_FALSE(PXIOService::serviceWithIOService(0xFFFFFF));

  b->invalidate();
  EXPECT_EQ(b->service(), 0u);
  EXPECT_FALSE(b->isEqual(*a));
  EXPECT_FALSE(b->valueForProperty("type"));
  EXPECT_FALSE(b->properties());
  EXPECT_FALSE(b->serviceClass());
  EXPECT_FALSE(b->conformsToIOClass("IOService"));
  EXPECT_FALSE(b->parentService());
  EXPECT_EQ(b->setValue(PXValue(1), "online"), kPXIOReturnUnsupported);
  EXPECT_EQ(a->setProperties(*PXDictionary::dictionary()), kPXIOReturnUnsupported);
}

TEST(PXIOServiceDevices, InterestNotifications) {
  PX_SKIP_WITHOUT_UMOCKDEV();
  Laptop m;
  PXRef<PXIOService> bat = at(m.bat);
  Recorder first, second, stranger;
  bat->addNotificationListener(&first);
  bat->addNotificationListener(&second);
  bat->removeNotificationListener(&stranger);  // unknown: the others stay
  m.bed.uevent(m.ac, "change");                // another device: not heard
  m.bed.setAttribute(m.bat, "status", "Discharging");
  m.bed.uevent(m.bat, "change");
  ASSERT_TRUE(PXRunLoopUntil([&] { return second.heard.size() == 1; }));
  EXPECT_TRUE(first.heard == second.heard);
  EXPECT_EQ(first.heard[0], (std::pair<uint32_t, std::string>{kPXIOMessageServicePropertyChange, "change"}));

  // The last listener gone: no more watching; a new one sets it up again.
  bat->removeNotificationListener(&first);
  bat->removeNotificationListener(&second);
  EXPECT_FALSE(bat->isWatching());
  bat->addNotificationListener(&first);
  EXPECT_TRUE(bat->isWatching());
  m.bed.uevent(m.bat, "remove");
  ASSERT_TRUE(PXRunLoopUntil([&] { return first.heard.size() == 2; }));
  EXPECT_EQ(first.heard[1].first, kPXIOMessageServiceIsTerminated);
  EXPECT_EQ(second.heard.size(), 1u);
  bat->invalidate();
  EXPECT_FALSE(bat->isWatching());
}

// ---- Service queries -------------------------------------------------------------------------------

namespace {
struct QueryLog : PXServiceQueryDelegate {
  std::vector<std::string> events;
  std::string veto, refuse;
  std::thread::id thread;

  static std::string nameOf(PXIOService* s) { return s->sysfsPath().substr(s->sysfsPath().rfind('/') + 1); }
  static std::string nameOf(const PXDictionary& a) {
    return nameOf(static_cast<PXIOService*>(a.objectForKey(kPXServiceQueryIOServiceKey).objectPointer()));
  }
  bool serviceQueryProbeNewService(PXServiceQuery*, PXIOService* s) override {
    thread = std::this_thread::get_id();
    events.push_back("probe " + nameOf(s));
    return nameOf(s) != veto;
  }
  PXRef<PXError> serviceQueryUseNewServiceWithAttributes(PXServiceQuery*, const PXDictionary& a) override {
    events.push_back("use " + nameOf(a));
    EXPECT_NE(IOServiceTools::IOObject(a.objectForKey(kPXServiceQueryIOServiceNotificationKey)), 0u);
    return nameOf(a) == refuse ? PXError::errorWithDomain("Refusals", 7, PXString("no")) : PXRef<PXError>();
  }
  void serviceQueryTerminateServiceWithAttributes(PXServiceQuery*, const PXDictionary& a) override {
    events.push_back("terminate " + nameOf(a));
  }
  void serviceQueryNotificationForServiceWithAttributes(PXServiceQuery*, const PXDictionary& a, uint32_t type,
                                                        void* arg) override {
    events.push_back("message " + nameOf(a) + " " + static_cast<const char*>(arg) +
                     (type == kPXIOMessageServiceIsTerminated ? " terminated" : ""));
  }
  void serviceQueryError(PXServiceQuery*, const PXError& e) override {
    events.push_back("error " + std::string(e.domain().view()) + " " + std::to_string(e.code()) + " " +
                     std::to_string(e.userInfo()->objectForKey("InternalErrorCode").intValue()));
  }
};
}  // namespace

TEST(PXServiceQueryDevices, FollowsDevicesAsTheyComeAndGo) {
  PX_SKIP_WITHOUT_UMOCKDEV();
  Laptop m;
  QueryLog log;
  log.veto = "sdb";
  auto query = PXMake<PXServiceQuery>(
      PXServiceQuery::matchingDictionaryForIOServiceClass("IOBlockStorageDevice"), &log);
  ASSERT_TRUE(query->startQuery());
  EXPECT_FALSE(query->startQuery());  // running already: nothing changes
  // In sysfs path order: the USB stick's controller sorts first.
  EXPECT_EQ(log.events,
            (std::vector<std::string>{"probe sdc", "use sdc", "probe sda", "use sda", "probe sdb"}));
  log.events.clear();

  std::string sdd =
      m.bed.addDevice("block", "sdd", m.sata, {{"queue/rotational", "1"}}, {{"DEVTYPE", "disk"}});
  m.bed.uevent(sdd, "add");
  m.bed.uevent(m.hdd, "change");  // vetoed: never heard of again
  m.bed.uevent(m.ssd, "change");
  m.bed.uevent(m.stick, "remove");
  ASSERT_TRUE(PXRunLoopUntil([&] { return log.events.size() == 5; }));
  EXPECT_EQ(log.events, (std::vector<std::string>{"probe sdd", "use sdd", "message sda change",
                                                  "message sdc remove terminated", "terminate sdc"}));
  EXPECT_EQ(query->recordedServices().size(), 2u);
}

TEST(PXServiceQueryDevices, RefusalsAndStopping) {
  PX_SKIP_WITHOUT_UMOCKDEV();
  Laptop m;
  QueryLog log;
  log.refuse = "sdb";
  auto query = PXMake<PXServiceQuery>(
      PXServiceQuery::matchingDictionaryForIOServiceClass("IOBlockStorageDevice"), &log);
  ASSERT_TRUE(query->startQuery());
  EXPECT_EQ(log.events, (std::vector<std::string>{"probe sdc", "use sdc", "probe sda", "use sda", "probe sdb",
                                                  "use sdb", "error Refusals 7 14"}));
  log.events.clear();
  m.bed.uevent(m.hdd, "remove");  // refused: no terminate later
  m.bed.uevent(m.ssd, "change");
  ASSERT_TRUE(PXRunLoopUntil([&] { return !log.events.empty(); }));
  EXPECT_EQ(log.events, std::vector<std::string>{"message sda change"});
  log.events.clear();

  query->stopQuery();
  EXPECT_EQ(log.events, (std::vector<std::string>{"terminate sdc", "terminate sda"}));
  EXPECT_FALSE(query->isRunning());
  query->stopQuery();  // again: nothing
  EXPECT_EQ(log.events.size(), 2u);
}

TEST(PXServiceQueryDevices, StopAndTerminationFromAnotherThreadRunOnTheQuerysThread) {
  PX_SKIP_WITHOUT_UMOCKDEV();
  Laptop m;
  QueryLog log;
  auto query =
      PXMake<PXServiceQuery>(PXServiceQuery::matchingDictionaryForIOServiceClass("IOAccelerator"), &log);
  ASSERT_TRUE(query->startQuery());
  std::thread::id terminatedOn;
  struct Spy : QueryLog {
    std::thread::id* on;
    void serviceQueryTerminateServiceWithAttributes(PXServiceQuery*, const PXDictionary&) override {
      *on = std::this_thread::get_id();
    }
  };
  Spy spy;
  spy.on = &terminatedOn;
  auto second =
      PXMake<PXServiceQuery>(PXServiceQuery::matchingDictionaryForIOServiceClass("IOAccelerator"), &spy);
  ASSERT_TRUE(second->startQuery());
  std::atomic<bool> done{false};
  std::thread other([&] {
    second->stopQuery();
    PXNotificationCenter::defaultCenter()->postNotificationName(kPXApplicationWillTerminateNotification);
    done = true;
    PXRunLoop::main()->wakeUp();
  });
  ASSERT_TRUE(PXRunLoopUntil([&] { return done.load(); }));
  other.join();
  EXPECT_EQ(terminatedOn, std::this_thread::get_id());
  EXPECT_FALSE(second->isRunning());
  EXPECT_FALSE(query->isRunning());  // stopped by the will-terminate notification
  EXPECT_EQ(log.events.back(), "terminate card0");
}

// ---- The power source -------------------------------------------------------------------------------

TEST(PXPowerSourceObserverDevices, FollowsTheChargerAndTheBattery) {
  PX_SKIP_WITHOUT_UMOCKDEV();
  Laptop m;
  std::vector<std::pair<std::string, std::string>> posted;  // new, old
  PXRef<PXObject> token = PXNotificationCenter::defaultCenter()->addObserverForName(
      kPXPowerSourceObserverChangeNotification, nullptr, nullptr, [&](const PXNotification& n) {
        PXValue old = n.userInfo()->objectForKey("old");
        posted.emplace_back(n.userInfo()->objectForKey("new").stringValue(),
                            old ? old.stringValue() : "<absent>");
      });
  auto power = PXMake<PXPowerSourceObserver>();
  ASSERT_EQ(posted.size(), 1u);
  EXPECT_EQ(posted[0], (std::pair<std::string, std::string>{"AC Power", "<absent>"}));
  ASSERT_TRUE(power->currentPowerSourceInfo());
  EXPECT_EQ(power->currentPowerSourceInfo()->objectForKey("Name").stringValue(), "BAT0");  // not the mouse
  EXPECT_EQ(power->currentPowerSourceInfo()->objectForKey("Current Capacity").intValue(), 80);

  // Watching starts on the main run loop; a change made now is seen by it.
  PXRunLoop::main()->runUntilDate(PXDate::dateWithTimeIntervalSinceNow(0));
  m.bed.setAttribute(m.ac, "online", "0");
  m.bed.setAttribute(m.bat, "status", "Discharging");
  m.bed.uevent(m.ac, "change");
  ASSERT_TRUE(PXRunLoopUntil([&] { return posted.size() == 2; }));
  EXPECT_EQ(posted[1], (std::pair<std::string, std::string>{"Battery Power", "AC Power"}));
  EXPECT_EQ(power->currentPowerSource(), "Battery Power");

  // The same state again: the description is announced, the state is not.
  int infoChanges = 0;
  struct Counter : PXObject {
    int* count;
    void observeValueForKeyPath(const PXString&, PXObject*, const PXDictionary&, void*) override { ++*count; }
  };
  auto counter = PXMake<Counter>();
  counter->count = &infoChanges;
  power->addObserver(counter.get(), "currentPowerSourceInfo", 0, nullptr);
  m.bed.setAttribute(m.bat, "capacity", "79");
  m.bed.uevent(m.bat, "change");
  ASSERT_TRUE(PXRunLoopUntil([&] { return infoChanges == 1; }));
  EXPECT_EQ(power->currentPowerSourceInfo()->objectForKey("Current Capacity").intValue(), 79);
  EXPECT_EQ(posted.size(), 2u);
  power->removeObserver(counter.get(), "currentPowerSourceInfo");

  m.bed.setAttribute(m.bat, "present", "0");
  m.bed.uevent(m.bat, "change");
  ASSERT_TRUE(PXRunLoopUntil([&] { return posted.size() == 3; }));
  EXPECT_EQ(posted[2], (std::pair<std::string, std::string>{"Off Line", "Battery Power"}));
  PXNotificationCenter::defaultCenter()->removeObserver(token.get());
}
