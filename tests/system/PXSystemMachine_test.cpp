// The real machine's /sys, and UPower on a private system bus (python-dbusmock).
#include <gtest/gtest.h>
#include <pxkit/platform/PXNotificationCenter.h>
#include <pxkit/platform/PXRunLoop.h>
#include <pxkit/system/PXIOService.h>
#include <pxkit/system/PXPowerSourceObserver.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "support/PXDBusMock.h"
#include "support/PXRunLoopUntil.h"
#include "system/internal/DeviceRegistry.h"

namespace {
bool hasPowerSupplies() {
  std::error_code ec;
  return !std::filesystem::is_empty("/sys/class/power_supply", ec) && !ec;
}
}  // namespace

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
  // The kernel's own uevent broadcast: what a "change" written to the device's uevent file sends.
  FILE* uevent = std::fopen((disk->sysfsPath() + "/uevent").c_str(), "w");
  if (!uevent) GTEST_SKIP() << "cannot write " << disk->sysfsPath() << "/uevent";
  std::fputs("change", uevent);
  std::fclose(uevent);
  ASSERT_TRUE(PXRunLoopUntil([&] { return !heard.types.empty(); }));
  EXPECT_EQ(heard.types[0], kPXIOMessageServicePropertyChange);
  disk->removeNotificationListener(&heard);
  pxkit::internal::DeviceEvents events =
      pxkit::internal::DeviceEvents::start(PXRunLoop::current(), [](const pxkit::internal::DeviceEvent&) {});
  EXPECT_STREQ(events.source(), "kernel");
}

TEST(PXSystemMachine, UPowerDecidesWhereItRuns) {
  if (hasPowerSupplies()) GTEST_SKIP() << "this machine has power supplies";
  PX_SKIP_WITHOUT_DBUS_MOCK();
  PXDBusMock bus;
  ASSERT_TRUE(bus.isUp());
  std::string error;
  ASSERT_TRUE(bus.startTemplate("upower", "org.freedesktop.UPower", "{\"OnBattery\": true}", &error))
      << error;
  std::vector<std::pair<std::string, std::string>> posted;  // new, old
  PXRef<PXObject> token = PXNotificationCenter::defaultCenter()->addObserverForName(
      kPXPowerSourceObserverChangeNotification, nullptr, nullptr, [&](const PXNotification& n) {
        PXValue old = n.userInfo()->objectForKey("old");
        posted.emplace_back(n.userInfo()->objectForKey("new").stringValue(),
                            old ? old.stringValue() : "<absent>");
      });
  PXPowerSourceObserver* power = PXPowerSourceObserver::sharedPowerSource();
  ASSERT_EQ(posted, (std::vector<std::pair<std::string, std::string>>{{"AC Power", "<absent>"}}));
  EXPECT_FALSE(power->currentPowerSourceInfo());  // sysfs first: nothing there
  auto mock = [&](const char* method, GVariant* arguments,
                  const char* interface = "org.freedesktop.DBus.Mock") {
    return bus.call("org.freedesktop.UPower", "/org/freedesktop/UPower", interface, method, arguments,
                    &error);
  };
  ASSERT_TRUE(mock("AddAC", g_variant_new("(ss)", "mock_AC", "Adapter"))) << error;  // no battery
  ASSERT_TRUE(mock("AddDischargingBattery", g_variant_new("(ssdx)", "mock_BAT", "Mock Battery", 30.0, 1200)))
      << error;
  ASSERT_TRUE(PXRunLoopUntil([&] { return posted.size() == 2; }));
  EXPECT_EQ(posted[1], (std::pair<std::string, std::string>{"Battery Power", "AC Power"}));
  EXPECT_EQ(power->currentPowerSourceInfo()->objectForKey("Current Capacity").intValue(), 30);
  EXPECT_EQ(power->currentPowerSourceInfo()->objectForKey("Time to Empty").intValue(), 20);
  ASSERT_TRUE(mock("Set", g_variant_new_parsed("('org.freedesktop.UPower', 'OnBattery', <false>)"),
                   "org.freedesktop.DBus.Properties"))
      << error;
  ASSERT_TRUE(PXRunLoopUntil([&] { return posted.size() == 3; }));
  EXPECT_EQ(posted[2].first, "AC Power");
  // A UPS of no known state that is no system supply: no built-in battery.
  ASSERT_TRUE(
      mock("SetDeviceProperties",
           g_variant_new_parsed("(%o, {'Type': <uint32 3>, 'State': <uint32 9>, 'PowerSupply': <false>})",
                                "/org/freedesktop/UPower/devices/mock_BAT")))
      << error;
  ASSERT_TRUE(PXRunLoopUntil([&] { return !power->currentPowerSourceInfo(); }));
  // UPower goes away: sysfs again, which has no battery.
  ASSERT_TRUE(bus.stopTemplate("org.freedesktop.UPower"));
  ASSERT_TRUE(PXRunLoopUntil([&] { return power->currentPowerSource() == "AC Power"; }));
  PXNotificationCenter::defaultCenter()->removeObserver(token.get());
}
