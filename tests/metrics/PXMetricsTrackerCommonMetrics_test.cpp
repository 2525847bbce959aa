// The common metrics: the catalogue's rules on fixture machines, usage that
// follows the power source and the network on the virtual clock, launches and
// the first-launch flag in a temporary home, and the catalogue of a device
// testbed (GPU, display connectors, drives; runs under umockdev-wrapper).
#include <gtest/gtest.h>
#include <pxkit/foundation/PXRuntime.h>
#include <pxkit/metrics/PXMetricsTrackerCommonMetrics.h>
#include <pxkit/net/PXNetworkAvailabilityMonitor.h>
#include <pxkit/objects/PXClock.h>
#include <pxkit/platform/PXBundle.h>
#include <pxkit/platform/PXCalendar.h>
#include <pxkit/platform/PXNotificationCenter.h>
#include <pxkit/platform/PXUserDefaults.h>
#include <pxkit/rules/PXRuleChecker.h>
#include <pxkit/rules/PXRuleCheckerSysCtlFunction.h>
#include <pxkit/rules/PXRuleCheckerVersionFunction.h>
#include <pxkit/system/PXPowerSourceObserver.h>
#include <pxkit/system/PXScreen.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <tuple>
#include <vector>

#include "metrics/internal/PXMetricsTrackerCommonMetricsInternal.h"
#include "metrics/internal/PXMetricsTrackerInternal.h"
#include "support/PXTempHome.h"
#include "support/PXTestPaths.h"
#include "support/PXUMockdevTestbed.h"

namespace {

using Row = std::vector<std::string>;  // identifier, primary, secondary ("-": absent)

// The catalogue as rows; version facts read below `versionRoot`, sysctl facts
// below `sysctlRoot` (the shared checker when both are empty).
std::vector<Row> catalogue(const std::string& versionRoot = {}, const std::string& sysctlRoot = {}) {
  PXRef<PXRuleChecker> checker;
  if (!versionRoot.empty()) {
    checker = PXRuleChecker::ruleCheckerWithDefaultFunctions(false);
    checker->addFunction(PXMake<PXRuleCheckerVersionFunction>(versionRoot));
    checker->addFunction(PXMake<PXRuleCheckerSysCtlFunction>(sysctlRoot));
  }
  auto shown = [](const PXString& s) { return s ? s.str() : "-"; };
  std::vector<Row> rows;
  for (const PXCommonMetric& m : PXMetricsTrackerCommonMetrics::commonMetricsCatalogue(checker.get()))
    rows.push_back({m.identifier.str(), shown(m.primary), shown(m.secondary)});
  return rows;
}

Row rowOf(const std::vector<Row>& rows, const std::string& identifier) {
  for (const Row& r : rows) {
    if (r[0] == identifier) return r;
  }
  return {};
}

std::vector<std::string> primaries(const std::vector<Row>& rows, const std::string& identifier) {
  std::vector<std::string> out;
  for (const Row& r : rows) {
    if (r[0] == identifier) out.push_back(r[1]);
  }
  return out;
}

// The value of a metric after computing it on the queue (usage seconds committed); -1 when absent.
int32_t computedValue(PXMetricsTracker& tracker, const char* identifier, const char* primary = nullptr,
                      const char* secondary = nullptr) {
  int32_t value = -1;
  tracker.settleOutstandingOperationsWithOperationSync([&] {
    PXRef<PXMetric> m = pxkit::internal::findMetricForIdentifier(tracker, identifier, primary, secondary);
    if (m) m->computeMetric();
    value = m ? m->value() : -1;
  });
  return value;
}

}  // namespace

TEST(PXMetricsTrackerCommonMetrics, VersionsAndMachineFacts) {
  PXTempHome home;
  PXScreen::setScreensProvider([] { return std::vector<double>{1.0, 2.0}; });
  const std::string smt = PXTestSourceDir() + "/tests/rules/fixtures/sysctl-smt";
  struct Case {
    const char *shortVersion, *osVersion;
    Row app, os;
  };
  for (const Case& c :
       std::vector<Case>{{"3", "10.8", {"common.appversion", "3", "3"}, {"common.osversion", "10.8", "10.8"}},
                         {"2.1.4",
                          "10.8.5",
                          {"common.appversion", "2", "2.1.4"},
                          {"common.osversion", "10.8", "10.8.5"}}}) {
    ASSERT_TRUE(PXBundle::setMainBundleIdentity("org.example.Host", c.shortVersion, "1"));
    home.writeFile("root/etc/os-release", std::string("VERSION_ID=\"") + c.osVersion + "\"\n");
    const std::vector<Row> rows = catalogue(home.root() + "/root", smt);
    EXPECT_EQ(rows.at(0), c.app);
    EXPECT_EQ(rows.at(1), c.os);
    // Two cores of two threads each, 512 MiB; two screens, one of them scaled.
    EXPECT_EQ(rowOf(rows, "common.cpucores"), (Row{"common.cpucores", "2", "4"}));
    EXPECT_EQ(rowOf(rows, "common.memoryphysical"), (Row{"common.memoryphysical", "0", "-"}));
    EXPECT_EQ(primaries(rows, "common.displaycount"), Row{"2"});
    EXPECT_EQ(primaries(rows, "common.displaytype"), Row{"retina"});
  }
  // Attribute-driven: a given value wins over an expression; not gated by `enabled`.
  PXRef<PXMetricsTracker> tracker = PXMake<PXMetricsTracker>();
  tracker->setEnabled(false);
  auto attrs = PXDictionary::dictionaryWithEntries(
      {{kPXMetricsAttributePrimaryValueKey, "given"},
       {kPXMetricsAttributePrimaryExpressionKey, "version.os"},
       {kPXMetricsAttributeSecondaryExpressionKey, "version.hostApplicationShort"}});
  PXRef<PXMetric> m =
      PXMetricsTrackerCommonMetrics::metricForIdentifier(*tracker, "host.flag", attrs.get(), 7);
  EXPECT_EQ((Row{m->primary().str(), m->secondary().str()}), (Row{"given", "2.1.4"}));
  EXPECT_EQ(m->value(), 7);
  EXPECT_FALSE(m->needsPersistentStorage());
}

TEST(PXMetricsTrackerCommonMetrics, TimeZoneAndLanguage) {
  PXTempHome home;
  setenv("LANGUAGE", "de_DE:fr", 1);
  const double january = 757382400;  // 2025-01-01 00:00 UTC
  struct Case {
    const char* zone;
    double date;
    Row expected;
  };
  for (const Case& c : std::vector<Case>{
           {"Asia/Kolkata", january, {"common.timezone", "IST", "5.5"}},
           {"America/Los_Angeles", january, {"common.timezone", "PST", "-8.0"}},
           {"America/Los_Angeles", january + 180 * 86400.0, {"common.timezone", "PDT", "-7.0"}}}) {
    setenv("TZ", c.zone, 1);
    PXCalendar::resetTimeZone();
    PXScopedVirtualClock clock{PXDate(c.date)};
    EXPECT_EQ(rowOf(catalogue(), "common.timezone"), c.expected) << c.zone;
  }
  // German first; the host ships no catalogue, then a French one only.
  ASSERT_TRUE(PXBundle::setMainBundleIdentity("org.example.Host", "1.0", "1"));
  EXPECT_EQ(rowOf(catalogue(), "common.language"), (Row{"common.language", "de-DE", "en"}));
  home.writeFile(home.systemDataDir() + "/locale/fr/LC_MESSAGES/org.example.Host.mo", "");
  EXPECT_EQ(rowOf(catalogue(), "common.language"), (Row{"common.language", "de-DE", "fr"}));
}

TEST(PXMetricsTrackerCommonMetrics, UsageFollowsPowerSourceAndNetwork) {
  PXTempHome home;
  PXScopedVirtualClock clock(PXDate(1000));
  PXRef<PXMetricsTracker> tracker = PXMake<PXMetricsTracker>();
  // Each change is settled before the clock moves: the queue reads the clock when it runs.
  auto settled = [&](double seconds) {
    tracker->settleOutstandingOperationsWithOperationSync();
    clock.advance(seconds);
  };
  using pxkit::internal::networkStatusUpdate;
  using pxkit::internal::powerSourceUpdate;
  // AC 10 s, battery 20 s, AC again through the network changes (5 + 7 + 3 s).
  powerSourceUpdate(*tracker, "AC Power");
  settled(10);
  powerSourceUpdate(*tracker, "Battery Power");
  settled(20);
  powerSourceUpdate(*tracker, "AC Power");
  settled(5);
  networkStatusUpdate(*tracker, true);
  settled(7);
  networkStatusUpdate(*tracker, false);
  settled(3);
  EXPECT_EQ(computedValue(*tracker, "common.powersource", "AC Power"), 25);
  EXPECT_EQ(computedValue(*tracker, "common.powersource", "Battery Power"), 20);
  EXPECT_EQ(computedValue(*tracker, "common.network", "online"), 7);
  EXPECT_EQ(computedValue(*tracker, "common.network", "offline"), 3);
  // No name: AC stops and stays remembered.
  powerSourceUpdate(*tracker, PXString());
  settled(4);
  EXPECT_EQ(computedValue(*tracker, "common.powersource", "AC Power"), 25);
  EXPECT_EQ(PXRuntime::getAssociatedObjectForKey(
                *tracker, pxkit::internal::kPXMetricsTrackerCommonMetricsLastPowerSourceKey)
                .stringValue(),
            "AC Power");
}

TEST(PXMetricsTrackerCommonMetrics, LaunchesFirstLaunchAndDisabledRecording) {
  PXTempHome home;
  setenv("TZ", "UTC", 1);
  PXScopedVirtualClock clock(PXDate(1000));
  PXPowerSourceObserver::sharedPowerSource();  // the shared objects' own observations are not the tracker's
  PXNetworkAvailabilityMonitor::sharedMonitor();
  PXNotificationCenter* center = PXNotificationCenter::defaultCenter();
  const size_t observersBefore = center->observerCount();
  struct Case {
    bool enabled, forget;  // forget: remove "MetricsAppHasLaunched" first
    int32_t launches, firstLaunch;
  };
  // Disabled on the first launch: nothing counted, the flag written all the
  // same; then a launch that is not the first; then one after the flag is gone.
  for (const Case& c : std::vector<Case>{{false, false, -1, -1}, {true, false, 1, -1}, {true, true, 1, 1}}) {
    if (c.forget) PXUserDefaults::standardUserDefaults()->removeObjectForKey("MetricsAppHasLaunched");
    PXRef<PXMetricsTracker> tracker = PXMake<PXMetricsTracker>();
    tracker->setEnabled(c.enabled);
    PXMetricsTrackerCommonMetrics::addCommonMetrics(*tracker);
    clock.advance(30);
    EXPECT_EQ(computedValue(*tracker, "common.launches"), c.launches);
    EXPECT_EQ(computedValue(*tracker, "common.firstlaunch"), c.firstLaunch);
    EXPECT_EQ(computedValue(*tracker, "common.runtime"), 30);
    EXPECT_EQ(computedValue(*tracker, "common.timezone", "UTC", "0.0"), 1);
    EXPECT_TRUE(PXUserDefaults::standardUserDefaults()->objectForKey("MetricsAppHasLaunched").boolValue());
    EXPECT_GT(center->observerCount(), observersBefore);
  }
  // Each tracker took its observations with it.
  EXPECT_EQ(center->observerCount(), observersBefore);
}

TEST(PXMetricsTrackerCommonMetrics, DeviceTestbed) {
  PX_SKIP_WITHOUT_UMOCKDEV();
  PXTempHome home;
  setenv("GDK_SCALE", "2", 1);
  PXUMockdevTestbed bed;
  // No devices at all (no DMI, GPU, screen, drive or battery), no os-release,
  // cpuinfo, CPU list or memory blocks: a missing fact drops only its metric.
  std::vector<Row> rows = catalogue(home.root(), home.root());
  Row identifiers;
  for (const Row& r : rows) identifiers.push_back(r[0]);
  EXPECT_EQ(identifiers, (Row{"common.hwvendor", "common.displaycount", "common.displaytype",
                              "common.language", "common.timezone", "common.launches", "common.firstlaunch",
                              "common.runtime", "common.powersource", "common.network"}));
  EXPECT_EQ(primaries(rows, "common.displaycount"), Row{"0"});
  EXPECT_EQ(primaries(rows, "common.powersource"), Row{"AC Power"});

  const std::string gpu = bed.addDevice("pci", "0000:00:02.0", "", {{"class", "0x030000"}},
                                        {{"ID_MODEL_FROM_DATABASE", "Example Graphics 3000"}});
  const std::string card = bed.addDevice("drm", "card0", gpu, {}, {{"DEVTYPE", "drm_minor"}});
  bed.addDevice("drm", "card0-eDP-1", card, {{"status", "connected"}});
  bed.addDevice("drm", "card0-HDMI-A-1", card, {{"status", "disconnected"}});
  const std::string sata = bed.addDevice("pci", "0000:00:1f.2", "", {{"class", "0x010601"}});
  const std::string usb = bed.addDevice("usb", "1-2", "", {}, {{"DEVTYPE", "usb_device"}});
  // SSD, HDD, another SSD, and an external HDD that does not count.
  for (const auto& [disk, parent, rotational] :
       std::vector<std::tuple<const char*, std::string, const char*>>{
           {"sda", sata, "0"}, {"sdb", sata, "1"}, {"sdc", sata, "0"}, {"sdd", usb, "1"}})
    bed.addDevice("block", disk, parent, {{"queue/rotational", rotational}}, {{"DEVTYPE", "disk"}});
  rows = catalogue(home.root(), home.root());
  EXPECT_EQ(primaries(rows, "common.displaycount"), Row{"1"});
  EXPECT_EQ(primaries(rows, "common.displaytype"), Row{"retina"});
  EXPECT_EQ(primaries(rows, "common.graphicscard"), Row{"Example Graphics 3000"});
  EXPECT_EQ(primaries(rows, "common.drivetechnology"), (Row{"Solid State", "Rotational"}));

  // The original maker's firmware, then another maker's board: its maker is
  // the vendor and the model reads "Hackintosh".
  std::filesystem::create_directories(home.root() + "/sys/class/dmi/id");
  std::ofstream(home.root() + "/sys/class/dmi/id/product_name") << "Book8,1\n";
  const std::string dmi =
      bed.addDevice("dmi", "id", "", {{"sys_vendor", "Apple Inc."}, {"product_name", "Book8,1"}});
  rows = catalogue(home.root(), home.root());
  EXPECT_EQ(primaries(rows, "common.hwvendor"), Row{"Apple"});
  EXPECT_EQ(rowOf(rows, "common.hwmodel"), (Row{"common.hwmodel", "Book", "Book8,1"}));
  bed.setAttribute(dmi, "sys_vendor", "Example Computers");
  rows = catalogue(home.root(), home.root());
  EXPECT_EQ(primaries(rows, "common.hwvendor"), Row{"Example Computers"});
  bed.setAttribute(dmi, "board_vendor", "Example Boards");
  rows = catalogue(home.root(), home.root());
  EXPECT_EQ(primaries(rows, "common.hwvendor"), Row{"Example Boards"});
  EXPECT_EQ(rowOf(rows, "common.hwmodel"), (Row{"common.hwmodel", "Hackintosh", "Hackintosh"}));
}
