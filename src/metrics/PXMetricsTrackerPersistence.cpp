// The tracker's state across launches: one keyed archive per system ID, kept
// under "Metrics" in the host application's user defaults.
#include <pxkit/metrics/PXMetricsTracker.h>
#include <pxkit/objects/PXKeyedArchiver.h>
#include <pxkit/platform/PXLog.h>
#include <pxkit/platform/PXOperationQueue.h>
#include <pxkit/platform/PXUserDefaults.h>

#include <utility>

#include "metrics/internal/PXMetricsTrackerInternal.h"

namespace {

const char* const kMetricsDefaultsKey = "Metrics";

// A dictionary built from value/key pairs in order that ends at the first
// absent value (kept on purpose, see docs/compatibility.md).
PXRef<PXMutableDictionary> dictionaryUntilFirstAbsent(
    std::initializer_list<std::pair<PXValue, const char*>> pairs) {
  auto dictionary = PXMutableDictionary::dictionary();
  for (const auto& [value, key] : pairs) {
    if (!value) break;
    dictionary->setObject(value, key);
  }
  return dictionary;
}

}  // namespace

PXRef<PXData> PXMetricsTracker::storeAsData() {
  PXRef<PXData> result;
  // On the queue, after every recording made before this call, tracker lock held.
  settleOutstandingOperationsWithOperationSync([&] {
    // One snapshot of the registry serves both the persisted metrics and the
    // saved-state papercut, so a large registry is retained and released once,
    // not twice. When every metric is persisted, the filtered array is the
    // snapshot itself.
    PXRef<PXArray> snapshot = metrics();
    // The registry holds nothing but metrics (addMetric takes only PXMetric).
    PXRef<PXArray> persisted = snapshot->filteredArray([](const PXValue& value) {
      return static_cast<const PXMetric*>(value.objectPointer())->needsPersistentStorage();
    });
    std::optional<PXDate> lastSubmission = lastAutoSubmissionDate();
    PXRef<PXMutableDictionary> root = dictionaryUntilFirstAbsent({
        {metricsTimeBase(), "TimeBase"},
        {metricsOriginTime(), "OriginTime"},
        {persisted, "Data"},
        {pxkit::internal::liveUserData(*this), "Storage"},
        {pxkit::internal::livePaperCuts(*this), "PaperCuts"},
        {pxkit::internal::liveLastPaperCutDates(*this), "LastPaperCutDateByMetricID"},
        {pxkit::internal::papercutDictWithTimestamp(*this, metricsTimeBase(), /*reset=*/false,
                                                    snapshot.get()),
         "SavedStatePaperCut"},
        {lastSubmission ? PXValue(*lastSubmission) : PXValue(), "LastAutoSubmissionDate"},
    });
    result = PXKeyedArchiver::archivedDataWithRootObject(root, nullptr,
                                                         storedStateLength_.load(std::memory_order_relaxed));
    if (result) storedStateLength_.store(result->length(), std::memory_order_relaxed);
  });
  return result;
}

bool PXMetricsTracker::restoreFromData(const PXRef<PXData>& data) {
  if (!data) return false;
  PXRef<PXDictionary> state = PXKeyedUnarchiver::unarchiveObjectWithData(data).dictionaryValue();
  if (!state) return false;
  storedStateLength_.store(data->length(), std::memory_order_relaxed);

  PXMonitorLock lock(monitor());
  // A value of another type than stored by this kit counts as absent: these
  // properties are typed.
  PXValue timeBase = state->objectForKey("TimeBase");
  setMetricsTimeBase(timeBase.isDate() ? timeBase.dateValue() : PXDate::now());
  PXValue originTime = state->objectForKey("OriginTime");
  setMetricsOriginTime(originTime.isDate() ? originTime.dateValue() : PXDate::now());

  PXRef<PXDictionary> storage = state->objectForKey("Storage").dictionaryValue();
  // Each setter keeps a mutable copy; an absent entry restores as empty.
  auto orEmpty = [](auto stored, auto empty) { return stored ? stored : empty; };
  setUserData(orEmpty(state->objectForKey("Storage").dictionaryValue(), PXDictionary::dictionary()));
  setPaperCuts(orEmpty(state->objectForKey("PaperCuts").arrayValue(), PXArray::array()));
  setLastPaperCutDateByMetricID(orEmpty(state->objectForKey("LastPaperCutDateByMetricID").dictionaryValue(),
                                        PXDictionary::dictionary()));
  PXValue lastSubmission = state->objectForKey("LastAutoSubmissionDate");
  setLastAutoSubmissionDate(lastSubmission.isDate() ? std::optional(lastSubmission.dateValue())
                                                    : std::nullopt);

  // The one already registered wins over an archived metric with the same identity.
  if (PXRef<PXArray> archived = state->objectForKey("Data").arrayValue()) {
    for (const PXValue& value : *archived) addMetric(PXDynamicCast<PXMetric>(value.objectValue()));
  }

  PXRef<PXDictionary> saved = state->objectForKey("SavedStatePaperCut").dictionaryValue();
  if (saved && shouldPerformAutomaticPapercut()) {
    // The saved period is over: keep its record as a papercut, start a new
    // period for the restored values, and write that down soon — from the main
    // queue, since this runs inside a settle callback.
    pxkit::internal::addPapercut(*this, saved);
    pxkit::internal::papercutDictWithTimestamp(*this, metricsTimeBase(), /*reset=*/true);
    PXOperationQueue::mainQueue()->addOperationWithBlock(
        [tracker = PXRef<PXMetricsTracker>(this)] { tracker->saveToPreferences(); });
  }
  return true;
}

void PXMetricsTracker::saveToPreferences() {
  PXRef<PXData> data = storeAsData();
  if (!data) return;
  PXString system = systemID();
  if (!system) return;
  PXUserDefaults* defaults = PXUserDefaults::standardUserDefaults();
  // Entries of other system IDs are carried over unchanged.
  auto all = PXMutableDictionary::dictionary();
  if (PXRef<PXDictionary> existing = defaults->dictionaryForKey(kMetricsDefaultsKey)) {
    all->addEntriesFromDictionary(*existing);
  }
  all->setObject(data, system);
  defaults->setObject(all, kMetricsDefaultsKey);
  // A failed write leaves the previous file whole; the next save tries again.
  PXErrorRef error;
  if (!defaults->synchronize(&error))
    PXLogWithLevel(PXLogLevel::Warning, "PXMetricsTracker: cannot save the tracker's state: %@",
                   error ? error->localizedDescription() : PXString("unknown error"));
}

void PXMetricsTracker::loadFromPreferences() {
  if (PXRef<PXDictionary> all =
          PXUserDefaults::standardUserDefaults()->dictionaryForKey(kMetricsDefaultsKey)) {
    PXString system = systemID();
    PXValue entry = system ? all->objectForKey(system) : PXValue();
    if (PXRef<PXData> blob = entry.dataValue()) {
      settleOutstandingOperationsWithOperationSync([&] { restoreFromData(blob); });
    }
  }
  // Whether or not any state was found.
  PXMonitorLock lock(monitor());
  considerAutomaticPapercutWithSchedule(/*schedule=*/true);
}
