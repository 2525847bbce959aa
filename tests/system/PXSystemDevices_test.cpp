// Services, queries and the power source on a umockdev laptop; uevents play changes.
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
#include <tuple>
#include <vector>

#include "support/PXRunLoopUntil.h"
#include "support/PXUMockdevTestbed.h"

namespace {

struct Laptop {
  PXUMockdevTestbed bed;
  std::string dmi, gpu, card, sata, ssd, part, hdd, usbHost, usbStick, stick, ac, bat, mouse;

  Laptop() {
    dmi = bed.addDevice("dmi", "id", "",
                        {{"product_name", "Notebook 14"}, {"sys_vendor", "Example Computers"}});
    gpu = bed.addDevice("pci", "0000:00:02.0", "",
                        {{"vendor", "0x8086"}, {"device", "0x0126"}, {"class", "0x030000"}},
                        {{"ID_MODEL_FROM_DATABASE", "Example Graphics 3000"}});
    card = bed.addDevice("drm", "card0", gpu, {}, {{"DEVTYPE", "drm_minor"}});
    bed.addDevice("drm", "card0-HDMI-A-1", card, {}, {});  // a connector is no card
    sata = bed.addDevice("pci", "0000:00:1f.2", "", {{"vendor", "0x8086"}, {"class", "0x010601"}});
    ssd = bed.addDevice("block", "sda", sata, {{"queue/rotational", "0"}, {"removable", "0"}},
                        {{"DEVTYPE", "disk"}, {"ID_BUS", "ata"}});
    part = bed.addDevice("block", "sda1", ssd, {}, {{"DEVTYPE", "partition"}});
    hdd = bed.addDevice("block", "sdb", sata, {{"queue/rotational", "1"}, {"removable", "0"}},
                        {{"DEVTYPE", "disk"}});
    usbHost = bed.addDevice("pci", "0000:00:14.0", "", {{"vendor", "0x8086"}, {"class", "0x0c0330"}});
    usbStick = bed.addDevice("usb", "1-2", usbHost, {{"idVendor", "abcd"}}, {{"DEVTYPE", "usb_device"}});
    bed.addDevice("usb", "1-2:1.0", usbStick, {}, {{"DEVTYPE", "usb_interface"}});
    stick = bed.addDevice("block", "sdc", usbStick, {{"removable", "1"}}, {{"DEVTYPE", "disk"}});
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

std::string sub(const PXValue& dict, const char* key) {
  return std::string(dict.dictionaryValue() ? dict.dictionaryValue()->objectForKey(key).stringValue()
                                            : "<none>");
}

}  // namespace

// Classes, plain udev properties and sysfs attributes, names, and registry-style
// properties; numbers match as numbers ("0x0126" text, 0x0126, 294 are one value).
TEST(PXIOServiceDevices, MatchingDictionariesFindTheirDevices) {
  PX_SKIP_WITHOUT_UMOCKDEV();
  Laptop m;
  struct Case {
    std::vector<PXDictionary::Entry> matching;
    std::vector<std::string> paths;
  };
  const std::vector<Case> cases = {
      {{{"IOProviderClass", "IOPlatformExpertDevice"}}, {m.dmi}},
      {{{"IOProviderClass", "IOMedia"}}, {m.ssd, m.part, m.hdd, m.stick}},
      {{{"IOProviderClass", "IOPCIDevice"}}, {m.gpu, m.usbHost, m.sata}},
      {{{"IOProviderClass", "IODisplayController"}}, {m.gpu}},
      {{{"IOProviderClass", "IOPMPowerSource"}}, {m.ac, m.bat, m.mouse}},
      {{{"IOProviderClass", "block"}, {"removable", 1}}, {m.stick}},
      {{{"IOProviderClass", "pci"}, {"device", 0x0126}}, {m.gpu}},
      {{{"IOProviderClass", "pci"}, {"device-id", 0x0126u}}, {m.gpu}},
      {{{"IOProviderClass", "pci"}, {"device-id", "0x0126"}}, {}},  // a registry number is no text
      {{{"IOProviderClass", "pci"}, {"model", "Example Graphics 3000"}}, {m.gpu}},
      {{{"IONameMatch", "sda"}}, {m.ssd}},
  };
  for (const Case& c : cases) {
    std::vector<std::string> want = c.paths;
    std::sort(want.begin(), want.end());
    auto matching = PXDictionary::dictionaryWithEntries(c.matching);
    EXPECT_EQ(pathsOf(PXIOService::servicesForMatchingDict(*matching)), want)
        << matching->description().str();
  }
  EXPECT_FALSE(PXIOService::servicesForMatchingClass(nullptr));
  int32_t code = -1;
  EXPECT_FALSE(PXServiceQuery::servicesMatchingDictionary(
      *PXServiceQuery::matchingDictionaryForIOServiceClass("NoSuchClass"), &code));
  EXPECT_EQ(code, kPXIOReturnSuccess);
}

TEST(PXIOServiceDevices, RegistryProperties) {
  PX_SKIP_WITHOUT_UMOCKDEV();
  Laptop m;
  EXPECT_EQ(at(m.dmi)->valueForProperty("model").stringValue(), "Notebook 14");
  EXPECT_EQ(at(m.dmi)->valueForProperty("manufacturer").stringValue(), "Example Computers");
  EXPECT_EQ(at(m.gpu)->valueForProperty("device-id").unsignedLongLongValue(), 0x0126u);
  EXPECT_EQ(at(m.card)->parentService()->valueForProperty("model").stringValue(), "Example Graphics 3000");
  for (const auto& [path, medium, location] :
       {std::tuple(m.ssd, "Solid State", "Internal"), std::tuple(m.hdd, "Rotational", "Internal"),
        std::tuple(m.stick, "", "External")}) {  // no rotational
    EXPECT_EQ(sub(at(path)->valueForProperty("Device Characteristics"), "Medium Type"), medium) << path;
    EXPECT_EQ(sub(at(path)->valueForProperty("Protocol Characteristics"), "Physical Interconnect Location"),
              location);
  }
  EXPECT_EQ(sub(at(m.ssd)->valueForProperty("Protocol Characteristics"), "Physical Interconnect"), "ata");
  EXPECT_EQ(at(m.bat)->valueForProperty("Transport Type").stringValue(), "Internal");
  EXPECT_FALSE(at(m.ac)->properties()->objectForKey("Transport Type"));  // line power is no power source
  PXRef<PXDictionary> all = at(m.dmi)->properties();  // sysfs attributes and registry names; nothing outside
  EXPECT_EQ(all->objectForKey("product_name").stringValue(), all->objectForKey("model").stringValue());
  EXPECT_FALSE(at(m.dmi)->valueForProperty("no_such_attribute"));
  EXPECT_FALSE(at(m.dmi)->valueForProperty("../../etc"));
}

TEST(PXIOServiceDevices, ClassesFamilyEqualityAndInvalidation) {
  PX_SKIP_WITHOUT_UMOCKDEV();
  Laptop m;
  PXRef<PXIOService> ssd = at(m.ssd);
  EXPECT_EQ(ssd->serviceClass(), "IOBlockStorageDevice");
  EXPECT_EQ(at(m.part)->serviceClass(), "IOMedia");
  EXPECT_TRUE(ssd->conformsToIOClass("IOMedia"));
  EXPECT_FALSE(ssd->conformsToIOClass("IOAccelerator"));
  EXPECT_TRUE(ssd->parentService()->isEqual(*at(m.sata)));
  EXPECT_EQ(pathsOf(at(m.sata)->childServices()), (std::vector<std::string>{m.ssd, m.hdd}));
  EXPECT_FALSE(at(m.hdd)->childServices());  // a leaf: absent, not empty

  PXRef<PXIOService> a = at(m.bat), b = at(m.bat);
  EXPECT_TRUE(a->isEqual(*b));
  EXPECT_FALSE(a->isEqual(*at(m.ac)));
  EXPECT_TRUE(PXIOService::serviceWithIOService(a->service())->isEqual(*a));
  EXPECT_FALSE(PXIOService::serviceWithIOService(0));
  EXPECT_FALSE(PXIOService::serviceWithIOService(0xFFFFFF));
  b->invalidate();
  EXPECT_EQ(b->service(), 0u);
  EXPECT_FALSE(b->isEqual(*a));
  EXPECT_FALSE(b->valueForProperty("type"));
  EXPECT_FALSE(b->properties());
  EXPECT_EQ(b->setValue(PXValue(1), "online"), kPXIOReturnUnsupported);
  EXPECT_EQ(a->setProperties(*PXDictionary::dictionary()), kPXIOReturnUnsupported);
}

namespace {
struct QueryLog : PXServiceQueryDelegate {
  std::vector<std::string> events;
  std::string veto, refuse;

  static std::string nameOf(PXIOService* s) { return s->sysfsPath().substr(s->sysfsPath().rfind('/') + 1); }
  static std::string nameOf(const PXDictionary& a) {
    return nameOf(static_cast<PXIOService*>(a.objectForKey(kPXServiceQueryIOServiceKey).objectPointer()));
  }
  bool serviceQueryProbeNewService(PXServiceQuery*, PXIOService* s) override {
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

// A vetoed device is never heard of again; a refused one is reported and
// forgotten; stopping terminates what is left.
TEST(PXServiceQueryDevices, FollowsDevicesAsTheyComeAndGo) {
  PX_SKIP_WITHOUT_UMOCKDEV();
  Laptop m;
  QueryLog log;
  log.veto = "sdb";
  log.refuse = "sdc";
  auto query = PXMake<PXServiceQuery>(
      PXServiceQuery::matchingDictionaryForIOServiceClass("IOBlockStorageDevice"), &log);
  ASSERT_TRUE(query->startQuery());
  EXPECT_FALSE(query->startQuery());  // running already: nothing changes
  // In sysfs path order: the USB stick's controller sorts first.
  EXPECT_EQ(log.events, (std::vector<std::string>{"probe sdc", "use sdc", "error Refusals 7 14", "probe sda",
                                                  "use sda", "probe sdb"}));
  log.events.clear();
  std::string sdd =
      m.bed.addDevice("block", "sdd", m.sata, {{"queue/rotational", "1"}}, {{"DEVTYPE", "disk"}});
  m.bed.uevent(m.part, "add");  // not a whole disk
  m.bed.uevent(m.ssd, "add");   // known already
  m.bed.uevent(sdd, "add");
  m.bed.uevent(m.hdd, "change");    // vetoed
  m.bed.uevent(m.stick, "remove");  // refused
  m.bed.uevent(m.ssd, "change");
  m.bed.uevent(sdd, "remove");
  ASSERT_TRUE(PXRunLoopUntil([&] { return log.events.size() == 5; }));
  EXPECT_EQ(log.events, (std::vector<std::string>{"probe sdd", "use sdd", "message sda change",
                                                  "message sdd remove terminated", "terminate sdd"}));
  EXPECT_EQ(query->recordedServices().size(), 1u);
  log.events.clear();
  query->stopQuery();
  EXPECT_EQ(log.events, std::vector<std::string>{"terminate sda"});
  EXPECT_FALSE(query->isRunning());
  query->stopQuery();  // again: nothing
  EXPECT_EQ(log.events.size(), 1u);
}

TEST(PXServiceQueryDevices, StopFromAnotherThreadTerminatesOnTheQuerysThread) {
  PX_SKIP_WITHOUT_UMOCKDEV();
  Laptop m;
  struct Spy : QueryLog {
    std::thread::id on;
    void serviceQueryTerminateServiceWithAttributes(PXServiceQuery*, const PXDictionary&) override {
      on = std::this_thread::get_id();
    }
  } spy;
  auto second =
      PXMake<PXServiceQuery>(PXServiceQuery::matchingDictionaryForIOServiceClass("IOAccelerator"), &spy);
  ASSERT_TRUE(second->startQuery());
  EXPECT_EQ(second->recordedServices().size(), 1u);  // the card, not its connector
  std::atomic<bool> done{false};
  std::thread other([&] {
    second->stopQuery();
    done = true;
    PXRunLoop::main()->wakeUp();
  });
  ASSERT_TRUE(PXRunLoopUntil([&] { return done.load(); }));
  other.join();
  EXPECT_EQ(spy.on, std::this_thread::get_id());
  EXPECT_FALSE(second->isRunning());
}

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

  // The same state again: the description changes, the state is not announced.
  m.bed.setAttribute(m.bat, "capacity", "79");
  m.bed.uevent(m.bat, "change");
  ASSERT_TRUE(PXRunLoopUntil(
      [&] { return power->currentPowerSourceInfo()->objectForKey("Current Capacity").intValue() == 79; }));
  EXPECT_EQ(posted.size(), 2u);

  m.bed.setAttribute(m.bat, "present", "0");
  m.bed.uevent(m.bat, "change");
  ASSERT_TRUE(PXRunLoopUntil([&] { return posted.size() == 3; }));
  EXPECT_EQ(posted[2], (std::pair<std::string, std::string>{"Off Line", "Battery Power"}));
  PXNotificationCenter::defaultCenter()->removeObserver(token.get());
}
