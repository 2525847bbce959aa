// The common metrics: the catalogue on fixture machines and a device testbed
// (under umockdev-wrapper), usage on the virtual clock, launches in a temporary home.
#include <gtest/gtest.h>
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

#include <algorithm>
#include <cstdlib>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "metrics/internal/PXMetricsTrackerCommonMetricsInternal.h"
#include "metrics/internal/PXMetricsTrackerInternal.h"
#include "support/PXTempHome.h"
#include "support/PXTestPaths.h"
#include "support/PXUMockdevTestbed.h"

namespace {

// The catalogue rows named in `identifiers` (all when empty), "identifier primary secondary" lines
// ("-": absent); facts read below the roots given, else by the shared checker.
std::string catalogue(const std::vector<std::string>& identifiers, const std::string& versionRoot = {},
                      const std::string& sysctlRoot = {}) {
  PXRef<PXRuleChecker> checker;
  if (!versionRoot.empty()) {
    checker = PXRuleChecker::ruleCheckerWithDefaultFunctions(false);
    checker->addFunction(PXMake<PXRuleCheckerVersionFunction>(versionRoot));
    checker->addFunction(PXMake<PXRuleCheckerSysCtlFunction>(sysctlRoot));
  }
  auto shown = [](const PXString& s) { return s ? s.str() : "-"; };
  std::string lines;
  for (const PXCommonMetric& m : PXMetricsTrackerCommonMetrics::commonMetricsCatalogue(checker.get())) {
    if (identifiers.empty() || std::ranges::find(identifiers, m.identifier.str()) != identifiers.end())
      lines += m.identifier.str() + " " + shown(m.primary) + " " + shown(m.secondary) + "\n";
  }
  return lines;
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
  // Two cores of two threads each, 512 MiB; two screens, one of them scaled.
  const std::vector<std::string> ids = {"common.appversion",     "common.osversion",    "common.cpucores",
                                        "common.memoryphysical", "common.displaycount", "common.displaytype"};
  const std::string machine =
      "common.cpucores 2 4\ncommon.memoryphysical 0 -\ncommon.displaycount 2 -\n"
      "common.displaytype retina -\n";
  for (auto [app, os, expected] : std::vector<std::array<std::string, 3>>{
           {"3", "10.8", "common.appversion 3 3\ncommon.osversion 10.8 10.8\n"},
           {"2.1.4", "10.8.5", "common.appversion 2 2.1.4\ncommon.osversion 10.8 10.8.5\n"}}) {
    ASSERT_TRUE(PXBundle::setMainBundleIdentity("org.example.Host", app, "1"));
    home.writeFile("root/etc/os-release", "VERSION_ID=\"" + os + "\"\n");
    EXPECT_EQ(catalogue(ids, home.root() + "/root", smt), expected + machine);
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
  EXPECT_EQ(m->primary(), "given");
  EXPECT_EQ(m->secondary(), "2.1.4");
  EXPECT_EQ(m->value(), 7);
  EXPECT_FALSE(m->needsPersistentStorage());
  // A given value that is no text is shown as text; an expression that is no text gives none.
  attrs = PXDictionary::dictionaryWithEntries(
      {{kPXMetricsAttributePrimaryValueKey, 5}, {kPXMetricsAttributeSecondaryExpressionKey, 6}});
  m = PXMetricsTrackerCommonMetrics::metricForIdentifier(*tracker, "host.number", attrs.get(), 1);
  EXPECT_EQ(m->primary(), "5");
  EXPECT_FALSE(m->secondary());
  PXScreen::setScreensProvider([] { return std::vector<double>{1.0}; });
  EXPECT_EQ(catalogue({"common.displaytype"}), "common.displaytype regular -\n");
}

TEST(PXMetricsTrackerCommonMetrics, TimeZoneAndLanguage) {
  PXTempHome home;
  setenv("LANGUAGE", "de_DE:fr", 1);
  const double january = 757382400;  // 2025-01-01 00:00 UTC
  for (auto [zone, date, expected] : std::vector<std::tuple<const char*, double, const char*>>{
           {"Asia/Kolkata", january, "common.timezone IST 5.5\n"},
           {"America/Los_Angeles", january, "common.timezone PST -8.0\n"},
           {"America/Los_Angeles", january + 180 * 86400.0, "common.timezone PDT -7.0\n"}}) {
    setenv("TZ", zone, 1);
    PXCalendar::resetTimeZone();
    PXScopedVirtualClock clock{PXDate(date)};
    EXPECT_EQ(catalogue({"common.timezone"}), expected) << zone;
  }
  // German first; the host ships no catalogue, then a French one only.
  ASSERT_TRUE(PXBundle::setMainBundleIdentity("org.example.Host", "1.0", "1"));
  EXPECT_EQ(catalogue({"common.language"}), "common.language de-DE en\n");
  home.writeFile(home.systemDataDir() + "/locale/fr/LC_MESSAGES/org.example.Host.mo", "");
  EXPECT_EQ(catalogue({"common.language"}), "common.language de-DE fr\n");
  // Empty entries of the data directories are skipped.
  home.setVariable("XDG_DATA_DIRS", "::" + home.systemDataDir());
  EXPECT_EQ(catalogue({"common.language"}), "common.language de-DE fr\n");
}

TEST(PXMetricsTrackerCommonMetrics, UsageFollowsPowerSourceAndNetwork) {
  PXTempHome home;
  PXScopedVirtualClock clock(PXDate(1000));
  PXRef<PXMetricsTracker> tracker = PXMake<PXMetricsTracker>();
  // Each change is settled before the clock moves: the queue reads the clock when it runs.
  using Step = std::tuple<bool, const char*, double>;  // power source or network, name, seconds
  for (auto [power, name, seconds] :
       {Step{true, "AC Power", 10}, Step{true, "Battery Power", 20}, Step{true, "AC Power", 5},
        Step{false, "online", 7}, Step{false, "offline", 3}, Step{true, nullptr, 4}}) {
    if (power) pxkit::internal::powerSourceUpdate(*tracker, name ? PXString(name) : PXString());
    if (!power) pxkit::internal::networkStatusUpdate(*tracker, name[1] == 'n');
    tracker->settleOutstandingOperationsWithOperationSync();
    clock.advance(seconds);
  }
  EXPECT_EQ(computedValue(*tracker, "common.powersource", "AC Power"), 25);
  EXPECT_EQ(computedValue(*tracker, "common.powersource", "Battery Power"), 20);
  EXPECT_EQ(computedValue(*tracker, "common.network", "online"), 7);
  EXPECT_EQ(computedValue(*tracker, "common.network", "offline"), 3 + 4);
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
  // Disabled on the first launch (the flag is written all the same), a second launch, one without the flag.
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
  EXPECT_EQ(center->observerCount(), observersBefore) << "each tracker took its observations with it";
}

TEST(PXMetricsTrackerCommonMetrics, DeviceTestbed) {
  PX_SKIP_WITHOUT_UMOCKDEV();
  PXTempHome home;
  setenv("GDK_SCALE", "2", 1);
  PXUMockdevTestbed bed;
  // No devices and no system files: a missing fact drops only its metric (the
  // application's version too, without the system's).
  ASSERT_TRUE(PXBundle::setMainBundleIdentity("org.example.Host", "1.0", "1"));
  auto facts = [&](const std::vector<std::string>& ids) { return catalogue(ids, home.root(), home.root()); };
  std::istringstream lines(facts({}));
  std::string identifiers;
  for (std::string line; std::getline(lines, line);) identifiers += line.substr(0, line.find(' ')) + " ";
  EXPECT_EQ(identifiers,
            "common.hwvendor common.displaycount common.displaytype common.language common.timezone "
            "common.launches common.firstlaunch common.runtime common.powersource common.network ");
  EXPECT_EQ(facts({"common.displaycount", "common.powersource"}),
            "common.displaycount 0 -\ncommon.powersource AC Power -\n");
  const std::string gpu = bed.addDevice("pci", "0000:00:02.0", "", {{"class", "0x030000"}},
                                        {{"ID_MODEL_FROM_DATABASE", "Example Graphics 3000"}});
  const std::string card = bed.addDevice("drm", "card0", gpu, {}, {{"DEVTYPE", "drm_minor"}});
  bed.addDevice("drm", "card0-eDP-1", card, {{"status", "connected"}});
  bed.addDevice("drm", "card0-HDMI-A-1", card, {{"status", "disconnected"}});
  // A second card of the same model is one graphics card; one whose device has no model name is none.
  bed.addDevice("drm", "card2", bed.addDevice("pci", "0000:02:00.0", "", {{"class", "0x030000"}}), {},
                {{"DEVTYPE", "drm_minor"}});
  const std::string twin = bed.addDevice("pci", "0000:01:00.0", "", {{"class", "0x030000"}},
                                         {{"ID_MODEL_FROM_DATABASE", "Example Graphics 3000"}});
  bed.addDevice("drm", "card1", twin, {}, {{"DEVTYPE", "drm_minor"}});
  const std::string sata = bed.addDevice("pci", "0000:00:1f.2", "", {{"class", "0x010601"}});
  const std::string usb = bed.addDevice("usb", "1-2", "", {}, {{"DEVTYPE", "usb_device"}});
  // SSD, HDD, another SSD, and an external HDD that does not count.
  for (auto [disk, parent, rotational] : {std::tuple{"sda", sata, "0"}, std::tuple{"sdb", sata, "1"},
                                          std::tuple{"sdc", sata, "0"}, std::tuple{"sdd", usb, "1"}})
    bed.addDevice("block", disk, parent, {{"queue/rotational", rotational}}, {{"DEVTYPE", "disk"}});
  EXPECT_EQ(
      facts({"common.displaycount", "common.displaytype", "common.graphicscard", "common.drivetechnology"}),
      "common.displaycount 1 -\ncommon.displaytype retina -\ncommon.graphicscard Example Graphics 3000 -\n"
      "common.drivetechnology Solid State -\ncommon.drivetechnology Rotational -\n");
  // The original maker's firmware, then another maker's board: the model reads "Hackintosh".
  home.writeFile("sys/class/dmi/id/product_name", "Book8,1\n");
  const std::string dmi =
      bed.addDevice("dmi", "id", "", {{"sys_vendor", "Apple Inc."}, {"product_name", "Book8,1"}});
  const std::vector<std::string> maker = {"common.hwvendor", "common.hwmodel"};
  EXPECT_EQ(facts(maker), "common.hwvendor Apple -\ncommon.hwmodel Book Book8,1\n");
  bed.setAttribute(dmi, "sys_vendor", "Example Computers");
  EXPECT_EQ(facts({"common.hwvendor"}), "common.hwvendor Example Computers -\n");
  bed.setAttribute(dmi, "board_vendor", "Example Boards");
  EXPECT_EQ(facts(maker), "common.hwvendor Example Boards -\ncommon.hwmodel Hackintosh Hackintosh\n");
}
