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
#include <string>
#include <vector>

#include "metrics/internal/PXMetricsTrackerCommonMetricsInternal.h"
#include "metrics/internal/PXMetricsTrackerInternal.h"
#include "support/PXTempHome.h"
#include "support/PXTestPaths.h"
#include "support/PXUMockdevTestbed.h"

namespace {

using Rows = std::vector<std::vector<std::string>>;  // identifier, primary, secondary ("-": absent)

std::string shown(const PXString& s) {
  return s ? s.str() : "-";
}

// The catalogue's state metrics as rows, facts read below `versionRoot` and `sysctlRoot`.
Rows stateRows(const std::string& versionRoot, const std::string& sysctlRoot) {
  PXRef<PXRuleChecker> checker = PXRuleChecker::ruleCheckerWithDefaultFunctions(false);
  checker->addFunction(PXMake<PXRuleCheckerVersionFunction>(versionRoot));
  checker->addFunction(PXMake<PXRuleCheckerSysCtlFunction>(sysctlRoot));
  Rows rows;
  for (const PXCommonMetric& m : PXMetricsTrackerCommonMetrics::commonMetricsCatalogue(checker.get())) {
    if (std::string(m.kind) == "state")
      rows.push_back({m.identifier.str(), shown(m.primary), shown(m.secondary)});
  }
  return rows;
}

std::vector<std::string> row(const Rows& rows, const std::string& identifier) {
  for (const auto& r : rows) {
    if (r[0] == identifier) return r;
  }
  return {};
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
    const char* shortVersion;
    const char* osVersion;
    std::vector<std::string> app, os;
  };
  for (const Case& c : std::vector<Case>{
           {"3", "10.8", {"common.appversion", "3", "3"}, {"common.osversion", "10.8", "10.8"}},
           {"2.1.4", "10.8.5", {"common.appversion", "2", "2.1.4"}, {"common.osversion", "10.8", "10.8.5"}},
       }) {
    ASSERT_TRUE(PXBundle::setMainBundleIdentity("org.example.Host", c.shortVersion, "1"));
    home.writeFile("root/etc/os-release", std::string("VERSION_ID=\"") + c.osVersion + "\"\n");
    const Rows rows = stateRows(home.root() + "/root", smt);
    EXPECT_EQ(rows.at(0), c.app);
    EXPECT_EQ(rows.at(1), c.os);
    // Two cores of two threads each, 512 MiB; two screens, one of them scaled.
    EXPECT_EQ(row(rows, "common.cpucores"), (std::vector<std::string>{"common.cpucores", "2", "4"}));
    EXPECT_EQ(row(rows, "common.memoryphysical")[1], "0");
    EXPECT_EQ(row(rows, "common.cputype")[1], "Intel(R) Core(TM) i7-8650U CPU @ 1.90GHz");
    EXPECT_EQ(row(rows, "common.displaycount")[1], "2");
    EXPECT_EQ(row(rows, "common.displaytype")[1], "retina");
  }
}

TEST(PXMetricsTrackerCommonMetrics, AMissingFactDropsOnlyItsMetric) {
  // A machine with no devices at all (no DMI, GPU, screen, drive or battery),
  // no os-release, cpuinfo, CPU list or memory blocks.
  PX_SKIP_WITHOUT_UMOCKDEV();
  PXTempHome home;
  PXUMockdevTestbed bed;
  const Rows rows = stateRows(home.root(), home.root());
  std::vector<std::string> identifiers;
  for (const auto& r : rows) identifiers.push_back(r[0]);
  EXPECT_EQ(identifiers,
            (std::vector<std::string>{"common.hwvendor", "common.displaycount", "common.displaytype",
                                      "common.language", "common.timezone"}));
  EXPECT_EQ(row(rows, "common.displaycount")[1], "0");
}

TEST(PXMetricsTrackerCommonMetrics, TimeZoneAndLanguage) {
  PXTempHome home;
  setenv("LANGUAGE", "de_DE:fr", 1);
  struct Case {
    const char* zone;
    PXDate date;
    std::vector<std::string> expected;
  };
  const PXDate january = PXDate(757382400);  // 2025-01-01 00:00 UTC
  for (const Case& c : std::vector<Case>{
           {"Asia/Kolkata", january, {"common.timezone", "IST", "5.5"}},
           {"America/Los_Angeles", january, {"common.timezone", "PST", "-8.0"}},
           {"America/Los_Angeles", PXDate(757382400 + 180 * 86400.0), {"common.timezone", "PDT", "-7.0"}}}) {
    setenv("TZ", c.zone, 1);
    PXCalendar::resetTimeZone();
    PXScopedVirtualClock clock(c.date);
    EXPECT_EQ(row(stateRows(home.root(), home.root()), "common.timezone"), c.expected) << c.zone;
  }
  // The host ships a French catalogue only: the user's German comes first, French is the localisation.
  ASSERT_TRUE(PXBundle::setMainBundleIdentity("org.example.Host", "1.0", "1"));
  EXPECT_EQ(row(stateRows(home.root(), home.root()), "common.language"),
            (std::vector<std::string>{"common.language", "de-DE", "en"}));
  home.writeFile(home.systemDataDir() + "/locale/fr/LC_MESSAGES/org.example.Host.mo", "");
  EXPECT_EQ(row(stateRows(home.root(), home.root()), "common.language"),
            (std::vector<std::string>{"common.language", "de-DE", "fr"}));
}

TEST(PXMetricsTrackerCommonMetrics, UsageFollowsPowerSourceAndNetwork) {
  PXTempHome home;
  PXScopedVirtualClock clock(PXDate(1000));
  PXRef<PXMetricsTracker> tracker = PXMake<PXMetricsTracker>();
  using pxkit::internal::networkStatusUpdate;
  using pxkit::internal::powerSourceUpdate;
  // Each change is settled before the clock moves: the queue reads the clock when it runs.
  auto power = [&](const char* source, double seconds) {
    powerSourceUpdate(*tracker, source);
    tracker->settleOutstandingOperationsWithOperationSync();
    clock.advance(seconds);
  };
  auto network = [&](bool online, double seconds) {
    networkStatusUpdate(*tracker, online);
    tracker->settleOutstandingOperationsWithOperationSync();
    clock.advance(seconds);
  };
  // AC 10 s, battery 20 s, AC again through the network changes (5 + 7 + 3 s);
  // then no name: AC stops, and stays remembered.
  power("AC Power", 10);
  power("Battery Power", 20);
  power("AC Power", 5);
  network(true, 7);
  network(false, 3);
  EXPECT_EQ(computedValue(*tracker, "common.powersource", "AC Power"), 25);
  EXPECT_EQ(computedValue(*tracker, "common.powersource", "Battery Power"), 20);
  EXPECT_EQ(computedValue(*tracker, "common.network", "online"), 7);
  EXPECT_EQ(computedValue(*tracker, "common.network", "offline"), 3);
  power(nullptr, 4);
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
    bool enabled;
    int32_t launches, firstLaunch;
  };
  // Disabled first: nothing counted, the flag written all the same; then a
  // second launch that counts but is no longer the first.
  for (const Case& c : std::vector<Case>{{false, -1, -1}, {true, 1, -1}}) {
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
  // A fresh home: the first launch counts.
  PXUserDefaults::standardUserDefaults()->removeObjectForKey("MetricsAppHasLaunched");
  PXRef<PXMetricsTracker> tracker = PXMake<PXMetricsTracker>();
  PXMetricsTrackerCommonMetrics::addCommonMetrics(*tracker);
  EXPECT_EQ(computedValue(*tracker, "common.firstlaunch"), 1);
}

TEST(PXMetricsTrackerCommonMetrics, AttributeDrivenRegistration) {
  PXTempHome home;
  ASSERT_TRUE(PXBundle::setMainBundleIdentity("org.example.Host", "4.2", "42"));
  PXRef<PXMetricsTracker> tracker = PXMake<PXMetricsTracker>();
  tracker->setEnabled(false);  // not gated
  auto attrs = PXDictionary::dictionaryWithEntries(
      {{kPXMetricsAttributePrimaryValueKey, "given"},
       {kPXMetricsAttributePrimaryExpressionKey, "version.os"},
       {kPXMetricsAttributeSecondaryExpressionKey, "version.hostApplicationShort"}});
  PXRef<PXMetric> m =
      PXMetricsTrackerCommonMetrics::metricForIdentifier(*tracker, "host.flag", attrs.get(), 7);
  ASSERT_TRUE(m);
  EXPECT_EQ(m->primary(), "given");
  EXPECT_EQ(m->secondary(), "4.2");
  EXPECT_EQ(m->value(), 7);
  EXPECT_FALSE(m->needsPersistentStorage());
  EXPECT_EQ(PXMetricsTrackerCommonMetrics::metricForIdentifier(*tracker, "host.bare", nullptr, 1)->primary(),
            PXString());
}

TEST(PXMetricsTrackerCommonMetrics, DeviceTestbed) {
  PX_SKIP_WITHOUT_UMOCKDEV();
  PXTempHome home;
  setenv("GDK_SCALE", "2", 1);
  PXUMockdevTestbed bed;
  const std::string gpu = bed.addDevice("pci", "0000:00:02.0", "", {{"class", "0x030000"}},
                                        {{"ID_MODEL_FROM_DATABASE", "Example Graphics 3000"}});
  const std::string card = bed.addDevice("drm", "card0", gpu, {}, {{"DEVTYPE", "drm_minor"}});
  bed.addDevice("drm", "card0-eDP-1", card, {{"status", "connected"}});
  bed.addDevice("drm", "card0-HDMI-A-1", card, {{"status", "disconnected"}});
  const std::string sata = bed.addDevice("pci", "0000:00:1f.2", "", {{"class", "0x010601"}});
  for (const char* disk : {"sda", "sdb", "sdc"})  // SSD, HDD, SSD again
    bed.addDevice("block", disk, sata, {{"queue/rotational", disk[2] == 'b' ? "1" : "0"}},
                  {{"DEVTYPE", "disk"}});
  const std::string usb = bed.addDevice("usb", "1-2", "", {}, {{"DEVTYPE", "usb_device"}});
  bed.addDevice("block", "sdd", usb, {{"queue/rotational", "1"}},
                {{"DEVTYPE", "disk"}});  // external: skipped
  Rows rows;
  for (const PXCommonMetric& m : PXMetricsTrackerCommonMetrics::commonMetricsCatalogue())
    rows.push_back({m.identifier.str(), shown(m.primary), shown(m.secondary)});
  auto all = [&rows](const std::string& identifier) {
    std::vector<std::string> primaries;
    for (const auto& r : rows) {
      if (r[0] == identifier) primaries.push_back(r[1]);
    }
    return primaries;
  };
  EXPECT_EQ(all("common.displaycount"), std::vector<std::string>{"1"});
  EXPECT_EQ(all("common.displaytype"), std::vector<std::string>{"retina"});
  EXPECT_EQ(all("common.graphicscard"), std::vector<std::string>{"Example Graphics 3000"});
  EXPECT_EQ(all("common.drivetechnology"), (std::vector<std::string>{"Solid State", "Rotational"}));
  EXPECT_EQ(all("common.hwvendor"), std::vector<std::string>{"Apple"});
  EXPECT_EQ(all("common.powersource"), std::vector<std::string>{"AC Power"});  // no battery
}
