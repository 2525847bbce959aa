// The tracker's common metrics: the catalogue, launches, runtime, and the
// power-source and network usage kept current.
#include <pxkit/foundation/PXAssociatedTargetBlockTrampoline.h>
#include <pxkit/foundation/PXObjectBlockObserver.h>
#include <pxkit/foundation/PXRuntime.h>
#include <pxkit/foundation/PXStringTools.h>
#include <pxkit/metrics/PXMetricsTrackerCommonMetrics.h>
#include <pxkit/net/PXNetworkAvailabilityMonitor.h>
#include <pxkit/objects/PXData.h>
#include <pxkit/objects/PXFormat.h>
#include <pxkit/platform/PXBundle.h>
#include <pxkit/platform/PXCalendar.h>
#include <pxkit/platform/PXNotificationCenter.h>
#include <pxkit/platform/PXUserDefaults.h>
#include <pxkit/rules/PXRuleChecker.h>
#include <pxkit/system/PXIOService.h>
#include <pxkit/system/PXPowerSourceObserver.h>
#include <pxkit/system/PXScreen.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <string_view>

#include "json/internal/JSONText.h"
#include "metrics/internal/PXMetricsTrackerCommonMetricsInternal.h"

const char* const kPXMetricsAttributePrimaryValueKey = "primaryValue";
const char* const kPXMetricsAttributeSecondaryValueKey = "secondaryValue";
const char* const kPXMetricsAttributePrimaryExpressionKey = "primaryExpression";
const char* const kPXMetricsAttributeSecondaryExpressionKey = "secondaryExpression";
const char* const kPXMetricsAppHasLaunchedKey = "MetricsAppHasLaunched";

namespace pxkit::internal {
const char* const kPXMetricsTrackerCommonMetricsLastPowerSourceKey =
    "kPXMetricsTrackerCommonMetricsLastPowerSourceKey";
const char* const kPXMetricsTrackerCommonMetricsLastNetworkStatusKey =
    "kPXMetricsTrackerCommonMetricsLastNetworkStatusKey";
}  // namespace pxkit::internal

namespace {

using pxkit::internal::kPXMetricsTrackerCommonMetricsLastNetworkStatusKey;
using pxkit::internal::kPXMetricsTrackerCommonMetricsLastPowerSourceKey;

constexpr const char* kState = "state";
constexpr const char* kCounter = "counter";
constexpr const char* kUsage = "usage";

// A fact as text: strings as they are, numbers and other values as their
// "%@" text; absent stays absent.
PXString text(const PXValue& value) {
  if (!value) return {};
  return value.isString() ? value.stringObject() : value.description();
}

// `whole` up to the n-th ".", or `whole` itself when it has fewer.
PXString upToDot(const PXString& whole, size_t occurence) {
  PXString part =
      PXStringTools::subStringToOccurenceOf(whole.view(), ".", 0, {0, whole.view().size()}, occurence);
  return part ? part : whole;
}

// Step 2: the board maker of a "FakeSMC" service; "Apple" without one.
PXString vendor(bool& hack) {
  hack = false;
  PXRef<PXArray> services = PXIOService::servicesForMatchingClass("FakeSMC");
  if (!services || services->count() == 0) return "Apple";
  auto* service = static_cast<PXIOService*>(services->objectAtIndex(0).objectPointer());
  if (!service) return "Apple";
  hack = true;
  PXValue maker = service->valueForProperty("mb-manufacturer");
  if (!maker) maker = service->valueForProperty("manufacturer");
  return maker.isString() ? maker.stringObject() : PXString("3rd party");
}

bool isUTF8(std::string_view bytes) {
  const auto* p = reinterpret_cast<const uint8_t*>(bytes.data());
  const uint8_t* end = p + bytes.size();
  while (p < end) {
    const pxkit::json::internal::UTF8Sequence sequence = pxkit::json::internal::decodeUTF8(p, end);
    if (sequence.status != pxkit::json::internal::UTF8Status::Ok) return false;
    p += sequence.length;
  }
  return true;
}

// Step 8: the model name of a GPU's parent device: text, or bytes up to
// their first zero that are UTF-8.
PXString acceleratorModel(const PXIOService& accelerator) {
  PXRef<PXIOService> parent = accelerator.parentService();
  if (!parent) return {};
  const PXValue model = parent->valueForProperty("model");
  if (model.isString()) return model.stringObject();
  if (PXRef<PXData> bytes = model.dataValue()) {
    const auto* begin = reinterpret_cast<const char*>(bytes->bytes().data());
    const std::string_view name(begin, strnlen(begin, bytes->length()));
    if (isUTF8(name)) return PXString(name);
  }
  return {};
}

bool contains(const std::vector<PXCommonMetric>& list, const char* identifier, const PXString& primary) {
  for (const PXCommonMetric& m : list) {
    if (m.identifier == identifier && m.primary == primary) return true;
  }
  return false;
}

// The host's localisation for the user's languages: the first language (or
// its base, "de" for "de-DE") for which the host ships a message catalogue
// named after its executable or identifier under a data directory's
// "locale"; "en", the language of a program's own texts, when it ships none.
PXString hostLocalization(const PXArray& languages) {
  PXBundle* bundle = PXBundle::mainBundle();
  std::vector<std::string> domains;
  for (const char* key : {kPXBundleExecutableKey, kPXBundleIdentifierKey}) {
    if (PXString name = text(bundle->objectForInfoDictionaryKey(key)); name && !name.view().empty())
      domains.push_back(name.str());
  }
  std::vector<std::string> dirs;
  if (PXString path = bundle->bundlePath()) dirs.push_back(path.str() + "/../share");
  if (const char* home = std::getenv("XDG_DATA_HOME"); home && *home) dirs.emplace_back(home);
  const char* system = std::getenv("XDG_DATA_DIRS");
  std::string_view list = system && *system ? system : "/usr/local/share:/usr/share";
  while (!list.empty()) {
    const size_t colon = list.find(':');
    if (colon != 0) dirs.emplace_back(list.substr(0, colon));
    list = colon == std::string_view::npos ? std::string_view() : list.substr(colon + 1);
  }
  for (const PXValue& language : languages) {
    std::string tag(language.stringValue());
    std::replace(tag.begin(), tag.end(), '-', '_');
    for (const std::string& name : {tag, tag.substr(0, tag.find('_'))}) {
      for (const std::string& dir : dirs) {
        for (const std::string& domain : domains) {
          std::error_code error;
          if (std::filesystem::exists(dir + "/locale/" + name + "/LC_MESSAGES/" + domain + ".mo", error))
            return language.stringObject();
        }
      }
    }
  }
  return "en";
}

// The state metrics of the catalogue, in order.
std::vector<PXCommonMetric> stateMetrics(const PXRuleChecker& checker) {
  std::vector<PXCommonMetric> out;
  auto add = [&out](const char* identifier, PXString primary, PXString secondary = {}) {
    out.push_back({identifier, std::move(primary), std::move(secondary), kState});
  };
  auto fact = [&checker](const char* keyPath) { return text(checker.computeFunction(keyPath)); };

  // 1. Versions: both or neither.
  const PXString app = fact("version.hostApplicationShort");
  const PXString os = fact("version.os");
  if (app && os) {
    add("common.appversion", upToDot(app, 1), app);
    add("common.osversion", upToDot(os, 2), os);
  }
  // 2-3. Vendor, then model (both facts, or neither).
  bool hack = false;
  add("common.hwvendor", vendor(hack));
  PXString model = fact("version.computerModel");
  PXString identifier = fact("version.computerIdentifier");
  if (model && identifier) {
    if (hack) model = identifier = "Hackintosh";
    add("common.hwmodel", model, identifier);
  }
  // 4-6. Processor and memory.
  if (PXString brand = fact("sysctl.string.machdep.cpu.brand_string")) add("common.cputype", brand);
  const PXValue physical = checker.computeFunction("sysctl.integer.hw.physicalcpu");
  const PXValue logical = checker.computeFunction("sysctl.integer.hw.logicalcpu");
  if (physical && logical) add("common.cpucores", PXFormat("%@", physical), PXFormat("%@", logical));
  if (const PXValue bytes = checker.computeFunction("sysctl.integer.hw.memsize"); bytes.isNumber()) {
    // Kept as it is: 1000 x 1024 x 1024, so 8 GiB reports "8".
    add("common.memoryphysical",
        PXFormat("%lld", static_cast<long long>(bytes.unsignedLongLongValue() / 1048576000ULL)));
  }
  // 7. Displays.
  const std::vector<double> screens = PXScreen::backingScaleFactors();
  bool retina = false;
  for (double factor : screens) retina = retina || static_cast<float>(factor) > 1.0f;
  add("common.displaycount", PXFormat("%ld", static_cast<long>(screens.size())));
  add("common.displaytype", retina ? "retina" : "regular");
  // 8. Graphics: one per distinct model name.
  if (PXRef<PXArray> accelerators = PXIOService::servicesForMatchingClass("IOAccelerator")) {
    for (const PXValue& item : *accelerators) {
      auto* accelerator = static_cast<PXIOService*>(item.objectPointer());
      PXString name = accelerator ? acceleratorModel(*accelerator) : PXString();
      if (name && !contains(out, "common.graphicscard", name)) add("common.graphicscard", name);
    }
  }
  // 9. Drives: the medium type of each internal drive, once per type.
  if (PXRef<PXArray> drives = PXIOService::servicesForMatchingClass("IOBlockStorageDevice")) {
    for (const PXValue& item : *drives) {
      auto* drive = static_cast<PXIOService*>(item.objectPointer());
      if (!drive) continue;
      PXRef<PXDictionary> device = drive->valueForProperty("Device Characteristics").dictionaryValue();
      PXRef<PXDictionary> protocol = drive->valueForProperty("Protocol Characteristics").dictionaryValue();
      if (!device || !protocol) continue;
      if (protocol->objectForKey("Physical Interconnect Location").stringValue() != "Internal") continue;
      PXString medium = text(device->objectForKey("Medium Type"));
      if (medium && !contains(out, "common.drivetechnology", medium)) add("common.drivetechnology", medium);
    }
  }
  // 10. Language.
  PXRef<PXArray> languages = PXBundle::mainBundle()->preferredLocalizations();
  const PXString language = languages->count() ? text(languages->objectAtIndex(0)) : PXString();
  add("common.language", language, hostLocalization(*languages));
  // 11. Time zone.
  const PXDate now = PXDate::now();
  add("common.timezone", PXString(PXCalendar::timeZoneAbbreviation(now)),
      PXFormat("%.01f", PXCalendar::secondsFromGMT(now) / 3600.0));
  return out;
}

// A weak handle on the tracker for callbacks that may outlive it.
PXWeakRef<PXMetricsTracker> weakTracker(PXMetricsTracker& tracker) {
  return PXWeakRef<PXMetricsTracker>(&tracker);
}

// Stops the usage remembered under `key` and starts `current`'s, remembering it.
void switchUsage(PXMetricsTracker& tracker, const char* identifier, const void* key,
                 const PXString& current) {
  const PXString last = text(PXRuntime::getAssociatedObjectForKey(tracker, key));
  PXMetricsTracker* self = &tracker;
  if (last) {
    tracker.performMetricsOperation(
        [self, identifier, last] { self->metricForIdentifier(identifier, last)->stopUsage(); });
  }
  if (!current) return;
  tracker.performMetricsOperation([self, identifier, current] {
    self->metricForIdentifier(identifier, current)->startOrContinueUsageWithAutostopAfterInterval(0);
  });
  PXRuntime::setRetainedAssociatedObject(tracker, current, key);
}

}  // namespace

namespace pxkit::internal {

void powerSourceUpdate(PXMetricsTracker& tracker, const PXString& current) {
  switchUsage(tracker, "common.powersource", kPXMetricsTrackerCommonMetricsLastPowerSourceKey, current);
}

void _powerSourceUpdate(PXMetricsTracker& tracker, const PXNotification* /*notification*/) {
  powerSourceUpdate(tracker, PXPowerSourceObserver::sharedPowerSource()->currentPowerSource());
}

void networkStatusUpdate(PXMetricsTracker& tracker, bool available) {
  switchUsage(tracker, "common.network", kPXMetricsTrackerCommonMetricsLastNetworkStatusKey,
              available ? "online" : "offline");
}

}  // namespace pxkit::internal

namespace PXMetricsTrackerCommonMetrics {

std::vector<PXCommonMetric> commonMetricsCatalogue(const PXRuleChecker* checker) {
  std::vector<PXCommonMetric> out = stateMetrics(checker ? *checker : *PXRuleChecker::sharedChecker());
  out.push_back({"common.launches", {}, {}, kCounter});
  if (!PXUserDefaults::standardUserDefaults()->objectForKey(kPXMetricsAppHasLaunchedKey))
    out.push_back({"common.firstlaunch", {}, {}, kCounter});
  out.push_back({"common.runtime", {}, {}, kUsage});
  if (PXString source = PXPowerSourceObserver::sharedPowerSource()->currentPowerSource())
    out.push_back({"common.powersource", source, {}, kUsage});
  const bool online = PXNetworkAvailabilityMonitor::sharedMonitor()->networkAvailable();
  out.push_back({"common.network", online ? "online" : "offline", {}, kUsage});
  return out;
}

void addCommonMetrics(PXMetricsTracker& tracker) {
  using namespace pxkit::internal;
  // 1-11: the state metrics, registered now.
  for (const PXCommonMetric& m : stateMetrics(*PXRuleChecker::sharedChecker()))
    tracker.metricForIdentifier(m.identifier, m.primary, m.secondary, 1);

  // 12-13: launches, queued (and dropped while recording is off); the
  // first-launch flag is written either way, and any stored value counts.
  tracker.updateMetricValue(1, "common.launches");
  PXUserDefaults* defaults = PXUserDefaults::standardUserDefaults();
  if (!defaults->objectForKey(kPXMetricsAppHasLaunchedKey)) {
    tracker.updateMetricValue(1, "common.firstlaunch");
    defaults->setBool(true, kPXMetricsAppHasLaunchedKey);
    (void)defaults->synchronize();  // a failed write is retried by the defaults' own flush
  }

  // 14: runtime, running until the process ends.
  tracker.metricForIdentifier("common.runtime")->startOrContinueUsageWithAutostopAfterInterval(0);

  // 15: the power source, now and on every change; will-terminate commits the stretch.
  _powerSourceUpdate(tracker);
  PXNotificationCenter* center = PXNotificationCenter::defaultCenter();
  PXWeakRef<PXMetricsTracker> weak = weakTracker(tracker);
  auto update = [weak](const PXNotification& notification) {
    if (PXRef<PXMetricsTracker> self = weak.lock()) _powerSourceUpdate(*self, &notification);
  };
  center->addObserver(&tracker, update, kPXPowerSourceObserverChangeNotification,
                      PXPowerSourceObserver::sharedPowerSource());
  center->addObserver(&tracker, update, kPXApplicationWillTerminateNotification);
  PXAssociatedTargetBlockTrampoline::addDeallocBlock(tracker, [](PXObject* gone) {
    PXNotificationCenter* defaultCenter = PXNotificationCenter::defaultCenter();
    defaultCenter->removeObserver(gone, kPXPowerSourceObserverChangeNotification, nullptr);
    defaultCenter->removeObserver(gone, kPXApplicationWillTerminateNotification, nullptr);
  });

  // 16: the network status, now (initial) and on every change.
  PXNetworkAvailabilityMonitor* monitor = PXNetworkAvailabilityMonitor::sharedMonitor();
  PXObjectBlockObserver::addObserverForKeyPath(
      *monitor, "networkAvailable",
      PXKeyValueObservingOptionNew | PXKeyValueObservingOptionOld | PXKeyValueObservingOptionInitial,
      &tracker, [weak, monitor](PXObject*, const PXString&, const PXDictionary&, PXObject*) {
        if (PXRef<PXMetricsTracker> self = weak.lock())
          networkStatusUpdate(*self, monitor->networkAvailable());
      });
  PXAssociatedTargetBlockTrampoline::addDeallocBlock(tracker, [monitor](PXObject* gone) {
    PXObjectBlockObserver::removeObjectBlockObserversWithOwner(*monitor, gone, "networkAvailable");
  });
}

PXRef<PXMetric> metricForIdentifier(PXMetricsTracker& tracker, const PXString& identifier,
                                    const PXDictionary* psAttributes, int32_t withValue) {
  auto qualifier = [psAttributes](const char* valueKey, const char* expressionKey) -> PXString {
    if (!psAttributes) return {};
    if (PXValue value = psAttributes->objectForKey(valueKey)) return text(value);
    const PXValue expression = psAttributes->objectForKey(expressionKey);
    if (!expression.isString()) return {};
    return text(PXRuleChecker::sharedChecker()->computeFunction(expression.stringValue()));
  };
  const PXString primary =
      qualifier(kPXMetricsAttributePrimaryValueKey, kPXMetricsAttributePrimaryExpressionKey);
  const PXString secondary =
      qualifier(kPXMetricsAttributeSecondaryValueKey, kPXMetricsAttributeSecondaryExpressionKey);
  return tracker.metricForIdentifier(identifier, primary, secondary, withValue);
}

}  // namespace PXMetricsTrackerCommonMetrics
