#include <pxkit/metrics/PXMetricsTracker.h>
#include <pxkit/objects/PXFormat.h>
#include <pxkit/platform/PXApplication.h>
#include <pxkit/platform/PXDispatchQueue.h>
#include <pxkit/platform/PXNotificationCenter.h>
#include <pxkit/platform/PXOperationQueue.h>
#include <pxkit/platform/PXPreferences.h>
#include <pxkit/platform/PXTimer.h>
#include <pxkit/platform/PXUUID.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <memory>
#include <string>
#include <utility>

#include "metrics/internal/PXMetricsRecordingLog.h"
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
  recordingLog_ = std::make_unique<pxkit::internal::RecordingLog>();
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

namespace pxkit::internal {

// A chunk's header; its records follow. Chunks of kChunkBytes are pooled; a
// record too large for one gets a chunk of its own size, freed after use.
struct RecordingChunk {
  RecordingChunk* next = nullptr;
  size_t size = 0;      // bytes of records
  size_t capacity = 0;  // bytes of room for records
  std::byte* records() noexcept { return reinterpret_cast<std::byte*>(this + 1); }
  const std::byte* records() const noexcept { return reinterpret_cast<const std::byte*>(this + 1); }
};

namespace {

constexpr size_t kChunkBytes = 16 * 1024;
constexpr size_t kChunkRoom = kChunkBytes - sizeof(RecordingChunk);

// The fixed part of a record; the identity's bytes follow, padded to 8.
struct RecordHeader {
  uint32_t sizes[3];
  RecordingKind kind;
  uint8_t absent;  // bit i: part i is absent
  double argument;
};
static_assert(sizeof(RecordHeader) == 24 && sizeof(RecordingChunk) % 8 == 0);

constexpr size_t padded(size_t length) noexcept {
  return (length + 7) & ~size_t{7};
}

RecordingChunk* newChunk(size_t room) {
  return ::new (::operator new(sizeof(RecordingChunk) + room)) RecordingChunk{nullptr, 0, room};
}

void deleteChunk(RecordingChunk* chunk) noexcept {
  ::operator delete(chunk);
}

}  // namespace

bool RecordingBatch::read(Cursor& cursor, Recording& recording) const noexcept {
  if (!cursor.started) cursor = {first_, 0, true};
  while (cursor.chunk && cursor.offset >= cursor.chunk->size) cursor = {cursor.chunk->next, 0, true};
  if (!cursor.chunk) return false;
  const std::byte* at = cursor.chunk->records() + cursor.offset;
  RecordHeader header;
  std::memcpy(&header, at, sizeof header);
  const char* text = reinterpret_cast<const char*>(at + sizeof header);
  std::string_view* parts[3] = {&recording.identifier, &recording.primary, &recording.secondary};
  size_t length = 0;
  for (int i = 0; i < 3; ++i) {
    *parts[i] =
        header.absent & (1u << i) ? std::string_view() : std::string_view(text + length, header.sizes[i]);
    length += header.sizes[i];
  }
  recording.kind = header.kind;
  recording.argument = header.argument;
  cursor.offset += sizeof header + padded(length);
  return true;
}

RecordingLog::~RecordingLog() {
  if (applied_) giveBackLocked(applied_);
  while (RecordingBatch* batch = spareBatches_) {
    spareBatches_ = batch->nextSpare_;
    delete batch;
  }
  while (RecordingChunk* chunk = spareChunks_) {
    spareChunks_ = chunk->next;
    deleteChunk(chunk);
  }
}

void RecordingLog::appendLocked(RecordingBatch& batch, const Recording& recording) {
  const std::string_view parts[3] = {recording.identifier, recording.primary, recording.secondary};
  RecordHeader header{};
  size_t length = 0;
  for (int i = 0; i < 3; ++i) {
    header.sizes[i] = static_cast<uint32_t>(parts[i].size());
    if (parts[i].data() == nullptr) header.absent |= static_cast<uint8_t>(1u << i);
    length += parts[i].size();
  }
  header.kind = recording.kind;
  header.argument = recording.argument;
  const size_t bytes = sizeof header + padded(length);
  RecordingChunk* chunk = batch.last_;
  if (!chunk || chunk->capacity - chunk->size < bytes) {
    if (bytes <= kChunkRoom && spareChunks_) {
      chunk = spareChunks_;
      spareChunks_ = chunk->next;
      --spareChunkCount_;
      chunk->next = nullptr;
      chunk->size = 0;
    } else {
      chunk = newChunk(std::max(bytes, kChunkRoom));
    }
    (batch.last_ ? batch.last_->next : batch.first_) = chunk;
    batch.last_ = chunk;
  }
  std::byte* at = chunk->records() + chunk->size;
  std::memcpy(at, &header, sizeof header);
  at += sizeof header;
  for (std::string_view part : parts) {
    if (!part.empty()) std::memcpy(at, part.data(), part.size());
    at += part.size();
  }
  chunk->size += bytes;
}

RecordingBatch* RecordingLog::takeBatchLocked() {
  RecordingBatch* batch = spareBatches_;
  if (!batch) return new RecordingBatch();
  spareBatches_ = batch->nextSpare_;
  batch->nextSpare_ = nullptr;
  return batch;
}

void RecordingLog::giveBackLocked(RecordingBatch* batch) noexcept {
  while (RecordingChunk* chunk = batch->first_) {
    batch->first_ = chunk->next;
    if (spareChunkCount_ < kSpareChunks && chunk->capacity == kChunkRoom) {
      chunk->next = spareChunks_;
      spareChunks_ = chunk;
      ++spareChunkCount_;
    } else {
      deleteChunk(chunk);
    }
  }
  batch->last_ = nullptr;
  batch->nextSpare_ = spareBatches_;
  spareBatches_ = batch;
}

void RecordingLog::seal() noexcept {
  std::lock_guard guard(lock_);
  open_ = nullptr;
}

void RecordingLog::close(RecordingBatch* batch) noexcept {
  std::lock_guard guard(lock_);
  if (open_ == batch) open_ = nullptr;
  if (applied_) giveBackLocked(std::exchange(applied_, nullptr));
}

}  // namespace pxkit::internal

void PXMetricsTracker::enqueueRecording(const pxkit::internal::Recording& recording) {
  // One check of `enabled`: calls made while disabled leave no trace.
  if (!enabled()) return;
  using pxkit::internal::RecordingBatch;
  recordingLog_->append(recording, [this](RecordingBatch* batch) {
    auto job = [tracker = PXRef<PXMetricsTracker>(this), batch] {
      // The batch is applied holding the tracker lock once.
      PXMetricsTracker& self = *tracker;
      PXMonitorLock lock(self.monitor());
      self.recordingLog_->close(batch);
      self.applyRecordings(*batch);
      self.recordingLog_->recycle(batch);
    };
    static_assert(PXDispatchQueue::storesInline<decltype(job)>(), "no allocation per batch for its job");
    metricsOperationQueue_->async(std::move(job));
  });
}

void PXMetricsTracker::applyRecordings(const pxkit::internal::RecordingBatch& batch) {
  using pxkit::internal::Recording;
  using pxkit::internal::RecordingKind;
  auto sameIdentity = [](const Recording& a, const Recording& b) {
    return a.identifier == b.identifier && a.primary == b.primary && a.secondary == b.secondary;
  };
  Recording recording, previous;
  PXRef<PXMetric> metric;
  uint64_t removals = 0;
  for (pxkit::internal::RecordingBatch::Cursor at; batch.read(at, recording);) {
    // The metric is looked up (or created) when the recording is applied, not
    // when the call was made; a run of recordings of one identity looks it up
    // once, unless a metric was removed meanwhile.
    if (!metric || !sameIdentity(recording, previous) ||
        metricRemovals_.load(std::memory_order_acquire) != removals) {
      removals = metricRemovals_.load(std::memory_order_acquire);
      metric = metricForRecording(recording.identifier, recording.primary, recording.secondary);
      previous = recording;
    }
    if (!metric) continue;
    switch (recording.kind) {
      case RecordingKind::UpdateValue:
        metric->updateValue(static_cast<int32_t>(recording.argument));
        break;
      case RecordingKind::StartOrContinueUsage:
        metric->startOrContinueUsageWithAutostopAfterInterval(recording.argument);
        break;
      case RecordingKind::StopUsage:
        metric->stopUsage();
        break;
      case RecordingKind::SetFixedValue:
        metricForIdentifier(metric->identifier(), metric->primary(), metric->secondary(),
                            static_cast<int32_t>(recording.argument));
        break;
    }
  }
}

void PXMetricsTracker::updateMetricValue(int32_t delta, std::string_view identifier, std::string_view primary,
                                         std::string_view secondary) {
  enqueueRecording({pxkit::internal::RecordingKind::UpdateValue, static_cast<double>(delta), identifier,
                    primary, secondary});
}

void PXMetricsTracker::startOrContinueUsageWithAutostopAfterInterval(double interval,
                                                                     std::string_view identifier,
                                                                     std::string_view primary,
                                                                     std::string_view secondary) {
  enqueueRecording(
      {pxkit::internal::RecordingKind::StartOrContinueUsage, interval, identifier, primary, secondary});
}

void PXMetricsTracker::stopUsageForIdentifier(std::string_view identifier, std::string_view primary,
                                              std::string_view secondary) {
  enqueueRecording({pxkit::internal::RecordingKind::StopUsage, 0, identifier, primary, secondary});
}

void PXMetricsTracker::setFixedValue(int32_t value, std::string_view identifier, std::string_view primary,
                                     std::string_view secondary) {
  enqueueRecording({pxkit::internal::RecordingKind::SetFixedValue, static_cast<double>(value), identifier,
                    primary, secondary});
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
  metricRemovals_.fetch_add(1, std::memory_order_acq_rel);
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
  recordingLog_->seal();  // recordings made after this call are applied after the operation
  metricsOperationQueue_->async([tracker = PXRef<PXMetricsTracker>(this), operation = std::move(operation)] {
    PXMonitorLock lock(tracker->monitor());
    operation();
  });
}

void PXMetricsTracker::settleOutstandingOperationsWithOperationSync(const PXMetricsOperation& operation) {
  if (!metricsOperationQueue_) return;
  recordingLog_->seal();
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
