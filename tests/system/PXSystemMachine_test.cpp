// The answers on the machine the tests run on, read from its real /sys, and
// UPower on a private system bus (python-dbusmock's template). The CI machine
// has no udev daemon, no battery, no DMI and no GPU; cases that need one of
// those absent skip on a machine that has it.
#include <gtest/gtest.h>
#include <pxkit/platform/PXNotificationCenter.h>
#include <pxkit/platform/PXRunLoop.h>
#include <pxkit/system/PXIOService.h>
#include <pxkit/system/PXPowerSourceObserver.h>
#include <pxkit/system/PXServiceQuery.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "support/PXDBusMock.h"
#include "support/PXRunLoopUntil.h"
#include "system/internal/DeviceRegistry.h"

namespace {
bool hasEntries(const char* dir) {
  std::error_code ec;
  return std::filesystem::exists(dir, ec) && !std::filesystem::is_empty(dir, ec);
}
}  // namespace

TEST(PXSystemMachine, NoBatteryReadsAsACPower) {
  if (hasEntries("/sys/class/power_supply")) GTEST_SKIP() << "this machine has power supplies";
  std::vector<std::string> posted;
  PXObject* sender = nullptr;
  PXRef<PXObject> token = PXNotificationCenter::defaultCenter()->addObserverForName(
      kPXPowerSourceObserverChangeNotification, nullptr, nullptr, [&](const PXNotification& n) {
        posted.emplace_back(n.userInfo()->objectForKey("new").stringValue());
        EXPECT_FALSE(n.userInfo()->objectForKey("old"));
        sender = n.object();
      });
  PXPowerSourceObserver* power = PXPowerSourceObserver::sharedPowerSource();
  EXPECT_EQ(power, PXPowerSourceObserver::sharedPowerSource());
  EXPECT_EQ(sender, power);
  EXPECT_EQ(power->currentPowerSource(), "AC Power");
  EXPECT_FALSE(power->currentPowerSourceInfo());
  EXPECT_EQ(posted, std::vector<std::string>{"AC Power"});
  PXNotificationCenter::defaultCenter()->removeObserver(token.get());
}

TEST(PXSystemMachine, NoDMIAndNoGPUGiveNoServices) {
  if (hasEntries("/sys/class/dmi/id") || hasEntries("/sys/class/drm"))
    GTEST_SKIP() << "this machine has DMI or DRM";
  EXPECT_EQ(PXIOService::servicesForMatchingClass("IOPlatformExpertDevice")->count(), 0u);
  EXPECT_EQ(PXIOService::servicesForMatchingClass("IOAccelerator")->count(), 0u);
  int32_t code = -1;
  EXPECT_FALSE(PXServiceQuery::servicesMatchingDictionary(
      *PXServiceQuery::matchingDictionaryForIOServiceClass("IOPlatformExpertDevice"), &code));
  EXPECT_EQ(code, kPXIOReturnSuccess);
}

TEST(PXSystemMachine, RealDevicesHaveAClassAndAParent) {
  // Every machine has block devices and a root: the walk up ends.
  PXRef<PXArray> all = PXIOService::servicesForMatchingClass("IOMedia");
  if (!all || all->count() == 0) GTEST_SKIP() << "no block devices visible";
  auto* first = static_cast<PXIOService*>(all->objectAtIndex(0).objectPointer());
  EXPECT_TRUE(first->conformsToIOClass("IOMedia"));
  int depth = 0;
  for (PXRef<PXIOService> s(first); s && depth < 64; s = s->parentService()) ++depth;
  EXPECT_LT(depth, 64);
}

TEST(PXSystemMachine, WithoutUdevTheKernelMonitorDeliversEvents) {
  if (access("/run/udev/control", F_OK) == 0) GTEST_SKIP() << "a udev daemon runs here";
  if (getuid() != 0) GTEST_SKIP() << "writing a uevent file needs root";
  PXRef<PXArray> disks = PXIOService::servicesForMatchingClass("IOMedia");
  if (!disks || disks->count() == 0) GTEST_SKIP() << "no block devices";
  PXRef<PXIOService> disk(static_cast<PXIOService*>(disks->objectAtIndex(0).objectPointer()));
  struct Heard : PXIOServiceNotificationListener {
    std::vector<uint32_t> types;
    void service(PXIOService*, uint32_t type, void*) override { types.push_back(type); }
  } heard;
  disk->addNotificationListener(&heard);
  ASSERT_TRUE(disk->isWatching());
  // The kernel's own uevent broadcast: what a "change" written to the device's uevent file sends.
  FILE* uevent = std::fopen((disk->sysfsPath() + "/uevent").c_str(), "w");
  if (!uevent) GTEST_SKIP() << "cannot write " << disk->sysfsPath() << "/uevent";
  std::fputs("change", uevent);
  std::fclose(uevent);
  ASSERT_TRUE(PXRunLoopUntil([&] { return !heard.types.empty(); }));
  EXPECT_EQ(heard.types[0], kPXIOMessageServicePropertyChange);
  disk->removeNotificationListener(&heard);
}

TEST(PXSystemMachine, UPowerDecidesWhereItRuns) {
  if (hasEntries("/sys/class/power_supply")) GTEST_SKIP() << "this machine has power supplies";
  PX_SKIP_WITHOUT_DBUS_MOCK();
  PXDBusMock bus;
  ASSERT_TRUE(bus.isUp());
  std::string error;
  ASSERT_TRUE(bus.startTemplate("upower", "org.freedesktop.UPower", "{\"OnBattery\": true}", &error))
      << error;
  std::vector<std::pair<std::string, std::string>> posted;
  PXRef<PXObject> token = PXNotificationCenter::defaultCenter()->addObserverForName(
      kPXPowerSourceObserverChangeNotification, nullptr, nullptr, [&](const PXNotification& n) {
        PXValue old = n.userInfo()->objectForKey("old");
        posted.emplace_back(n.userInfo()->objectForKey("new").stringValue(),
                            old ? old.stringValue() : "<absent>");
      });
  auto power = PXMake<PXPowerSourceObserver>();
  ASSERT_EQ(posted.size(), 1u);
  EXPECT_EQ(posted[0].first, "AC Power");  // sysfs first: nothing there
  // A discharging battery appears on UPower.
  ASSERT_TRUE(bus.call("org.freedesktop.UPower", "/org/freedesktop/UPower", "org.freedesktop.DBus.Mock",
                       "AddDischargingBattery",
                       g_variant_new("(ssdx)", "mock_BAT", "Mock Battery", 30.0, 1200), &error))
      << error;
  ASSERT_TRUE(PXRunLoopUntil([&] { return posted.size() == 2; }));
  EXPECT_EQ(posted[1], (std::pair<std::string, std::string>{"Battery Power", "AC Power"}));
  ASSERT_TRUE(power->currentPowerSourceInfo());
  EXPECT_EQ(power->currentPowerSourceInfo()->objectForKey("Current Capacity").intValue(), 30);
  EXPECT_EQ(power->currentPowerSourceInfo()->objectForKey("Time to Empty").intValue(), 20);
  // UPower's own announcements: line power, then the battery again.
  for (bool onBattery : {false, true}) {
    ASSERT_TRUE(bus.call(
        "org.freedesktop.UPower", "/org/freedesktop/UPower", "org.freedesktop.DBus.Properties", "Set",
        g_variant_new("(ssv)", "org.freedesktop.UPower", "OnBattery", g_variant_new_boolean(onBattery)),
        &error))
        << error;
    const size_t expected = onBattery ? 4 : 3;
    ASSERT_TRUE(PXRunLoopUntil([&] { return posted.size() == expected; }));
    EXPECT_EQ(posted.back().first, onBattery ? "Battery Power" : "AC Power");
  }
  // UPower goes away: sysfs again, which has no battery.
  ASSERT_TRUE(bus.stopTemplate("org.freedesktop.UPower"));
  ASSERT_TRUE(PXRunLoopUntil([&] { return posted.size() == 5; }));
  EXPECT_EQ(posted[4], (std::pair<std::string, std::string>{"AC Power", "Battery Power"}));
  PXNotificationCenter::defaultCenter()->removeObserver(token.get());
}

TEST(PXSystemMachine, EventSourceFollowsTheUdevDaemon) {
  pxkit::internal::DeviceEvents events =
      pxkit::internal::DeviceEvents::start(PXRunLoop::current(), [](const pxkit::internal::DeviceEvent&) {});
  if (!events) GTEST_SKIP() << "no device event source can be opened here";
  EXPECT_STREQ(events.source(), pxkit::internal::DeviceEvents::udevEventsAvailable() ? "udev" : "kernel");
}
