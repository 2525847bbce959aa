#include <pxkit/metrics/PXMetricsTracker.h>
#include <pxkit/objects/PXFormat.h>
#include <pxkit/platform/PXApplication.h>
#include <pxkit/platform/PXDispatchQueue.h>
#include <pxkit/platform/PXNotificationCenter.h>
#include <pxkit/platform/PXOperationQueue.h>
#include <pxkit/platform/PXPreferences.h>
#include <pxkit/platform/PXTimer.h>
#include <pxkit/platform/PXUUID.h>

#include <array>
#include <cmath>
#include <cstring>
#include <memory>
#include <string>

#include "metrics/internal/PXMetricsTrackerInternal.h"

const char* const kPXMetricsChannelDefault = "default";
const char* const kPXMetricsChannelDemo = "demo";
const char* const kPXMetricsChannelBundle = "bundle";
const char* const kPXMetricsChannelOnlineStore = "online";
const char* const kPXMetricsChannelMacAppStore = "mas";
const char* const kPXMetricsChannelRetail = "retail";
const char* const kPXMetricsPreferencesDisabledKey = "PXMetricsDisabled";

// The metrics collection endpoint: plain HTTP, path "/metrics/post".
static const char* const kPXMetricsDefaultPostURL = "http://metrics.pxkit.invalid/metrics/post";

PX_DEFINE_CLASS(PXMetricsTracker, PXObject, [](PXClassBuilder<PXMetricsTracker>& c) {
  c.computed("metricsOriginTime", &PXMetricsTracker::metricsOriginTime,
             &PXMetricsTracker::setMetricsOriginTime);
  c.computed("metricsTimeBase", &PXMetricsTracker::metricsTimeBase, &PXMetricsTracker::setMetricsTimeBase);
  c.computed("metrics", &PXMetricsTracker::metrics);
  c.computed("paperCuts", &PXMetricsTracker::paperCuts, &PXMetricsTracker::setPaperCuts,
             PXPropertyOwnership::Retain);
  c.computed("lastPaperCutDateByMetricID", &PXMetricsTracker::lastPaperCutDateByMetricID,
             &PXMetricsTracker::setLastPaperCutDateByMetricID, PXPropertyOwnership::Retain);
  c.computed("userData", &PXMetricsTracker::userData, &PXMetricsTracker::setUserData,
             PXPropertyOwnership::Retain);
  c.computed("channel", &PXMetricsTracker::channel, &PXMetricsTracker::setChannel,
             PXPropertyOwnership::Retain);
  c.computed("autoSubmissionEnabled", &PXMetricsTracker::autoSubmissionEnabled,
             &PXMetricsTracker::setAutoSubmissionEnabled);
  c.computed("metricsPostURL", &PXMetricsTracker::metricsPostURL, &PXMetricsTracker::setMetricsPostURL,
             PXPropertyOwnership::Retain);
  c.computed("enabled", &PXMetricsTracker::enabled, &PXMetricsTracker::setEnabled);
})

// ---- Instances ------------------------------------------------------------------------

PXMetricsTracker* PXMetricsTracker::sharedMetricsTracker() {
  static PXDispatchOnceToken once;
  static PXMetricsTracker* shared = nullptr;
  PXDispatchOnce(once, [] {
    PXMetricsTracker* tracker = PXMake<PXMetricsTracker>().detach();  // never released
    tracker->loadFromPreferences();
    PXNotificationCenter::defaultCenter()->addObserverForName(
        kPXApplicationWillTerminateNotification, PXApplication::sharedApplication(),
        PXOperationQueue::mainQueue(), [tracker](const PXNotification&) { tracker->saveToPreferences(); });
    shared = tracker;
  });
  return shared;
}

PXMetricsTracker::PXMetricsTracker() {
  metrics_ = PXMutableArray::array();
  metricsDict_ = PXMutableDictionary::dictionary();
  // Two readings of the clock, time base first.
  metricsTimeBase_ = PXDate::now();
  metricsOriginTime_ = PXDate::now();
  userData_ = PXMutableDictionary::dictionary();
  paperCuts_ = PXMutableArray::array();
  lastPaperCutDateByMetricID_ = PXMutableDictionary::dictionary();
  channel_ = kPXMetricsChannelDefault;
  metricsOperationQueue_ =
      std::make_unique<PXDispatchQueue>("pxkit-metrics", PXDispatchQueue::Wake::Deferred);
  metricsPostURL_ = kPXMetricsDefaultPostURL;
  registerSubmissionTriggers();
}

PXMetricsTracker::~PXMetricsTracker() {
  unregisterSubmissionTriggers();
  // Drains what is still queued (each job holds the tracker, so there is none
  // left by the time the last reference goes) and ends the worker.
  metricsOperationQueue_.reset();
  if (automaticPapercutTimer_) automaticPapercutTimer_->invalidate();
}

// ---- Identity --------------------------------------------------------------------------

namespace {

// Writes "{identifier}-{primary}-{secondary}" into `out`. Absent qualifiers are
// written as "", so an absent and an empty qualifier are the same metric; an
// absent identifier is written as the text of a null object, "(null)".
void writeUnifiedID(std::string& out, std::string_view identifier, std::string_view primary,
                    std::string_view secondary) {
  if (identifier.data() == nullptr) identifier = "(null)";
  out.resize(identifier.size() + primary.size() + secondary.size() + 8);
  char* at = out.data();
  auto put = [&at](std::string_view text) {
    if (!text.empty()) std::memcpy(at, text.data(), text.size());
    at += text.size();
  };
  put("{");
  put(identifier);
  put("}-{");
  put(primary);
  put("}-{");
  put(secondary);
  put("}");
}

// A metric identity copied into a queued operation: inline when short (the
// usual case, so recording allocates nothing), else on the heap. Keeps the
// difference between an absent and an empty string, which a new metric keeps.
class RecordedIdentity {
 public:
  RecordedIdentity(std::string_view identifier, std::string_view primary, std::string_view secondary)
      : absent_{identifier.data() == nullptr, primary.data() == nullptr, secondary.data() == nullptr},
        sizes_{static_cast<uint32_t>(identifier.size()), static_cast<uint32_t>(primary.size()),
               static_cast<uint32_t>(secondary.size())} {
    size_t total = identifier.size() + primary.size() + secondary.size();
    char* bytes = inline_;
    if (total > sizeof inline_) {
      heap_ = std::make_unique<char[]>(total);
      bytes = heap_.get();
    }
    for (std::string_view part : {identifier, primary, secondary}) {
      if (!part.empty()) std::memcpy(bytes, part.data(), part.size());
      bytes += part.size();
    }
  }
  RecordedIdentity(RecordedIdentity&& other) noexcept
      : absent_(other.absent_), sizes_(other.sizes_), heap_(std::move(other.heap_)) {
    if (!heap_) std::memcpy(inline_, other.inline_, sizes_[0] + sizes_[1] + sizes_[2]);
  }

  std::string_view identifier() const noexcept { return part(0, 0); }
  std::string_view primary() const noexcept { return part(1, sizes_[0]); }
  std::string_view secondary() const noexcept { return part(2, sizes_[0] + sizes_[1]); }

 private:
  std::string_view part(int index, size_t offset) const noexcept {
    if (absent_[index]) return {};
    return {(heap_ ? heap_.get() : inline_) + offset, sizes_[index]};
  }

  std::array<bool, 3> absent_;
  std::array<uint32_t, 3> sizes_;
  std::unique_ptr<char[]> heap_;
  char inline_[64];
};

}  // namespace

PXString pxkit::internal::unifiedIDForIdentifier(const PXString& identifier, const PXString& primary,
                                                 const PXString& secondary) {
  std::string id;
  writeUnifiedID(id, identifier.view(), primary.view(), secondary.view());
  return PXString(id);
}

PXString PXMetricsTracker::systemID() {
  static const char* const kSystemIDKey = "MetricsRandomSystemID";
  PXValue stored = PXPreferences::copyValue(kSystemIDKey, kPXPreferencesCurrentApplication,
                                            kPXPreferencesCurrentUser, kPXPreferencesCurrentHost);
  // Whatever string is found is used: kept on purpose, see docs/compatibility.md.
  if (stored.isString()) return stored.stringObject();
  PXString made = PXUUID::createString();
  if (!made) return {};
  PXPreferences::setValue(kSystemIDKey, made, kPXPreferencesCurrentApplication, kPXPreferencesCurrentUser,
                          kPXPreferencesCurrentHost);
  (void)PXPreferences::synchronize(kPXPreferencesCurrentApplication, kPXPreferencesCurrentUser,
                                   kPXPreferencesCurrentHost);
  return made;
}

// ---- Recording -------------------------------------------------------------------------

template <class Body>
void PXMetricsTracker::enqueueRecording(std::string_view identifier, std::string_view primary,
                                        std::string_view secondary, Body&& body) {
  // One check of `enabled` and one enqueue: calls made while disabled leave no trace.
  if (!enabled()) return;
  auto job = [tracker = PXRef<PXMetricsTracker>(this),
              identity = RecordedIdentity(identifier, primary, secondary), body = std::forward<Body>(body)] {
    // Each job holds the tracker lock while it runs; its temporaries die with it.
    PXMetricsTracker& self = *tracker;
    PXMonitorLock lock(self.monitor());
    // The metric is looked up (or created) when the job runs, not when the call was made.
    if (PXRef<PXMetric> metric =
            self.metricForRecording(identity.identifier(), identity.primary(), identity.secondary())) {
      body(self, *metric);
    }
  };
  static_assert(PXDispatchQueue::storesInline<decltype(job)>(),
                "a recording travels in its queue node: no allocation per call");
  metricsOperationQueue_->async(std::move(job));
}

void PXMetricsTracker::updateMetricValue(int32_t delta, std::string_view identifier, std::string_view primary,
                                         std::string_view secondary) {
  enqueueRecording(identifier, primary, secondary,
                   [delta](PXMetricsTracker&, PXMetric& metric) { metric.updateValue(delta); });
}

void PXMetricsTracker::startOrContinueUsageWithAutostopAfterInterval(double interval,
                                                                     std::string_view identifier,
                                                                     std::string_view primary,
                                                                     std::string_view secondary) {
  enqueueRecording(identifier, primary, secondary, [interval](PXMetricsTracker&, PXMetric& metric) {
    metric.startOrContinueUsageWithAutostopAfterInterval(interval);
  });
}

void PXMetricsTracker::stopUsageForIdentifier(std::string_view identifier, std::string_view primary,
                                              std::string_view secondary) {
  enqueueRecording(identifier, primary, secondary,
                   [](PXMetricsTracker&, PXMetric& metric) { metric.stopUsage(); });
}

void PXMetricsTracker::setFixedValue(int32_t value, std::string_view identifier, std::string_view primary,
                                     std::string_view secondary) {
  enqueueRecording(identifier, primary, secondary, [value](PXMetricsTracker& tracker, PXMetric& metric) {
    tracker.metricForIdentifier(metric.identifier(), metric.primary(), metric.secondary(), value);
  });
}

PXRef<PXMetric> PXMetricsTracker::metricForRecording(std::string_view identifier, std::string_view primary,
                                                     std::string_view secondary) {
  thread_local std::string unifiedID;
  writeUnifiedID(unifiedID, identifier, primary, secondary);
  {
    PXMonitorLock registry(metricsDict_->monitor());
    // The registry holds nothing but metrics (addMetric takes only PXMetric).
    if (const PXValue* found = metricsDict_->findStringKey(unifiedID)) {
      return PXRef<PXMetric>(static_cast<PXMetric*>(found->objectPointer()));
    }
  }
  auto text = [](std::string_view part) { return part.data() ? PXString(part) : PXString(); };
  return metricForIdentifier(text(identifier), text(primary), text(secondary));
}

// ---- Registry ---------------------------------------------------------------------------

bool PXMetricsTracker::addMetric(const PXRef<PXMetric>& metric) {
  if (!metric) return false;
  PXString unifiedID =
      pxkit::internal::unifiedIDForIdentifier(metric->identifier(), metric->primary(), metric->secondary());
  PXMonitorLock registry(metricsDict_->monitor());
  if (metricsDict_->find(unifiedID)) return false;  // an existing metric is never replaced
  metrics_->addObject(metric);
  metricsDict_->setObject(metric, unifiedID);
  return true;
}

void PXMetricsTracker::removeMetric(const PXRef<PXMetric>& metric) {
  if (!metric) return;
  PXString unifiedID =
      pxkit::internal::unifiedIDForIdentifier(metric->identifier(), metric->primary(), metric->secondary());
  PXMonitorLock registry(metricsDict_->monitor());
  metricsDict_->removeObjectForKey(unifiedID);
  metrics_->removeObjectIdenticalTo(metric);
}

PXRef<PXMetric> pxkit::internal::MetricsTrackerAccess::findMetric(const PXMetricsTracker& tracker,
                                                                  const PXString& unifiedID) {
  PXMonitorLock registry(tracker.metricsDict_->monitor());
  const PXValue* found = tracker.metricsDict_->find(unifiedID);
  return found ? PXDynamicCast<PXMetric>(found->objectValue()) : PXRef<PXMetric>();
}

PXRef<PXMetric> pxkit::internal::findMetricForIdentifier(const PXMetricsTracker& tracker,
                                                         const PXString& identifier, const PXString& primary,
                                                         const PXString& secondary, PXString* unifiedID) {
  PXString key = unifiedIDForIdentifier(identifier, primary, secondary);
  if (unifiedID) *unifiedID = key;
  return MetricsTrackerAccess::findMetric(tracker, key);
}

PXRef<PXMetric> PXMetricsTracker::metricForIdentifier(const PXString& identifier, const PXString& primary,
                                                      const PXString& secondary) {
  PXMonitorLock registry(metricsDict_->monitor());
  if (PXRef<PXMetric> found =
          pxkit::internal::findMetricForIdentifier(*this, identifier, primary, secondary)) {
    return found;
  }
  PXRef<PXMetric> metric = PXMake<PXMetric>();
  metric->setIdentifier(identifier);
  metric->setPrimary(primary);
  metric->setSecondary(secondary);
  // The registry holds the only lasting reference.
  return addMetric(metric) ? metric : PXRef<PXMetric>();
}

PXRef<PXMetric> PXMetricsTracker::metricForIdentifier(const PXString& identifier, const PXString& primary,
                                                      const PXString& secondary,
                                                      PXMetricComputeBlock withMetricComputationBlock,
                                                      bool needsPersistentStorage) {
  PXMonitorLock registry(metricsDict_->monitor());
  PXRef<PXMetric> metric = metricForIdentifier(identifier, primary, secondary);
  if (metric) {
    metric->setComputeMetricBlock(
        std::move(withMetricComputationBlock));  // runs phase 0 under the registry lock
    metric->setNeedsPersistentStorage(needsPersistentStorage);
  }
  return metric;
}

PXRef<PXMetric> PXMetricsTracker::metricForIdentifier(const PXString& identifier, const PXString& primary,
                                                      const PXString& secondary, int32_t withValue) {
  PXMonitorLock registry(metricsDict_->monitor());
  PXRef<PXMetric> metric = metricForIdentifier(identifier, primary, secondary);
  if (metric) {
    // A fixed value describes the current state: rebuilt each launch, never persisted, sent daily.
    metric->setValue(withValue);
    metric->setNeedsPersistentStorage(false);
    metric->setSubmissionFrequency(86400.0);
  }
  return metric;
}

// ---- The metrics operation queue ----------------------------------------------------------

void PXMetricsTracker::performMetricsOperation(PXMetricsOperation operation) {
  if (!operation || !metricsOperationQueue_) return;
  metricsOperationQueue_->async([tracker = PXRef<PXMetricsTracker>(this), operation = std::move(operation)] {
    PXMonitorLock lock(tracker->monitor());
    operation();
  });
}

void PXMetricsTracker::settleOutstandingOperationsWithOperationSync(const PXMetricsOperation& operation) {
  if (!metricsOperationQueue_) return;
  // The queue is serial: this job runs after every operation enqueued before it.
  metricsOperationQueue_->sync([this, &operation] {
    if (!operation) return;
    PXMonitorLock lock(monitor());
    operation();
  });
}

// ---- Days and switches -----------------------------------------------------------------------

int32_t PXMetricsTracker::totalUsageDaysUntil(std::optional<PXDate> date) {
  PXDate until = date.value_or(PXDate::now());
  PXMonitorLock lock(monitor());
  double seconds = until.timeIntervalSinceDate(metricsOriginTime());
  // Tenths of a day, truncated to a 32-bit integer, then rounded at half a day
  // with truncating integer division: 1.45 days → 1, 1.5 → 2, −0.6 → 0, −1.6 → −1
  // (kept on purpose, see docs/compatibility.md).
  double tenths = std::floor(seconds / 86400.0 * 10.0);
  int32_t whole = 0;
  if (tenths >= 2147483647.0) {
    whole = 2147483647;
  } else if (tenths <= -2147483648.0) {
    whole = -2147483647 - 1;
  } else if (!std::isnan(tenths)) {
    whole = static_cast<int32_t>(tenths);
  }
  return static_cast<int32_t>((static_cast<int64_t>(whole) + 5) / 10);
}

void PXMetricsTracker::start() {
  setAutoSubmissionEnabled(true);
  considerAutoSubmissionWithSubmissionDate();
  registerStartTrigger();
}

// ---- Properties ---------------------------------------------------------------------------------

PXDate PXMetricsTracker::metricsOriginTime() const {
  return getAtomic(propertyLock_, metricsOriginTime_);
}

void PXMetricsTracker::setMetricsOriginTime(PXDate date) {
  setObservable(propertyLock_, metricsOriginTime_, std::move(date), "metricsOriginTime");
}

PXDate PXMetricsTracker::metricsTimeBase() const {
  return getAtomic(propertyLock_, metricsTimeBase_);
}

void PXMetricsTracker::setMetricsTimeBase(PXDate date) {
  setObservable(propertyLock_, metricsTimeBase_, std::move(date), "metricsTimeBase");
}

PXRef<PXArray> PXMetricsTracker::metrics() const {
  PXMonitorLock registry(metricsDict_->monitor());
  return metrics_->copyArray();
}

// A snapshot of a container, taken under its own lock.
static PXRef<PXArray> snapshotOf(const PXRef<PXMutableArray>& live) {
  if (!live) return {};
  PXMonitorLock lock(live->monitor());
  return live->copyArray();
}

static PXRef<PXDictionary> snapshotOf(const PXRef<PXMutableDictionary>& live) {
  if (!live) return {};
  PXMonitorLock lock(live->monitor());
  return live->copyDictionary();
}

PXRef<PXMutableArray> pxkit::internal::MetricsTrackerAccess::paperCuts(const PXMetricsTracker& tracker) {
  std::lock_guard lock(tracker.propertyLock_);
  return tracker.paperCuts_;
}

PXRef<PXMutableDictionary> pxkit::internal::MetricsTrackerAccess::lastPaperCutDates(
    const PXMetricsTracker& tracker) {
  std::lock_guard lock(tracker.propertyLock_);
  return tracker.lastPaperCutDateByMetricID_;
}

PXRef<PXMutableDictionary> pxkit::internal::MetricsTrackerAccess::userData(const PXMetricsTracker& tracker) {
  std::lock_guard lock(tracker.propertyLock_);
  return tracker.userData_;
}

PXRef<PXArray> PXMetricsTracker::paperCuts() const {
  return snapshotOf(pxkit::internal::livePaperCuts(*this));
}

void PXMetricsTracker::setPaperCuts(const PXRef<PXArray>& paperCuts) {
  setObservable(propertyLock_, paperCuts_,
                paperCuts ? paperCuts->mutableCopyArray() : PXRef<PXMutableArray>(), "paperCuts");
}

PXRef<PXDictionary> PXMetricsTracker::lastPaperCutDateByMetricID() const {
  return snapshotOf(pxkit::internal::liveLastPaperCutDates(*this));
}

void PXMetricsTracker::setLastPaperCutDateByMetricID(const PXRef<PXDictionary>& dates) {
  setObservable(propertyLock_, lastPaperCutDateByMetricID_,
                dates ? dates->mutableCopyDictionary() : PXRef<PXMutableDictionary>(),
                "lastPaperCutDateByMetricID");
}

std::optional<PXDate> PXMetricsTracker::lastAutoSubmissionDate() const {
  return getAtomic(propertyLock_, lastAutoSubmissionDate_);
}

void PXMetricsTracker::setLastAutoSubmissionDate(std::optional<PXDate> date) {
  setObservable(propertyLock_, lastAutoSubmissionDate_, std::move(date), "lastAutoSubmissionDate");
}

PXRef<PXDictionary> PXMetricsTracker::userData() const {
  return snapshotOf(pxkit::internal::liveUserData(*this));
}

void PXMetricsTracker::setUserData(const PXRef<PXDictionary>& userData) {
  setObservable(propertyLock_, userData_,
                userData ? userData->mutableCopyDictionary() : PXRef<PXMutableDictionary>(), "userData");
}

PXRef<PXTimer> PXMetricsTracker::automaticPapercutTimer() const {
  return getAtomic(propertyLock_, automaticPapercutTimer_);
}

void PXMetricsTracker::setAutomaticPapercutTimer(PXRef<PXTimer> timer) {
  setObservable(propertyLock_, automaticPapercutTimer_, std::move(timer), "automaticPapercutTimer");
}

PXString PXMetricsTracker::channel() const {
  return getAtomic(propertyLock_, channel_);
}

void PXMetricsTracker::setChannel(PXString channel) {
  setObservable(propertyLock_, channel_, std::move(channel), "channel");
}

void PXMetricsTracker::setAutoSubmissionEnabled(bool enabled) {
  willChangeValueForKey("autoSubmissionEnabled");
  autoSubmissionEnabled_.store(enabled, std::memory_order_relaxed);
  didChangeValueForKey("autoSubmissionEnabled");
}

PXString PXMetricsTracker::metricsPostURL() const {
  return getAtomic(propertyLock_, metricsPostURL_);
}

void PXMetricsTracker::setMetricsPostURL(PXString url) {
  setObservable(propertyLock_, metricsPostURL_, std::move(url), "metricsPostURL");
}

void PXMetricsTracker::setEnabled(bool enabled) {
  willChangeValueForKey("enabled");
  enabled_.store(enabled, std::memory_order_relaxed);
  didChangeValueForKey("enabled");
}
