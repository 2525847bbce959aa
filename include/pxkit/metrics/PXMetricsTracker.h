// PXKit — the metrics tracker: the one way a host records usage.
//
// The tracker is the process-wide registry of metrics (PXMetric). It names a
// metric by a triple (identifier, primary, secondary), creates it on first use,
// and runs every mutation on one serial operation queue, so recording from any
// thread costs the caller one flag check and a short copy and never blocks on
// metrics work. It keeps its state across launches in the host's preferences,
// condenses it once per local calendar day into a papercut, and carries the
// user's opt-out switch ("PXMetricsDisabled" in the host's user defaults).
//
//   PXMetricsTracker* tracker = PXMetricsTracker::sharedMetricsTracker();
//   tracker->setChannel(kPXMetricsChannelOnlineStore);
//   tracker->start();
//   tracker->updateMetricValue(1, "com.example.exports", "pdf");
//   tracker->startOrContinueUsageWithAutostopAfterInterval(300, "com.example.editing");
//   tracker->setFixedValue(1, "com.example.darkmode");
//
// A metric identity's qualifiers may be absent; an absent and an empty
// qualifier are the same metric.
//
// Thread safety: every public operation may be called from any thread. Locks
// are taken in this order, and nothing takes two of them the other way round:
//
//   tracker monitor → registry (the metricsDict object's monitor) → a metric's monitor
//                   → paperCuts list's monitor → lastPaperCutDateByMetricID's monitor
//                   → userData's monitor
//
// then, innermost, the property lock (the plain fields' std::mutex, held for a
// copy and never around a call) and the object model's own key-value observing
// bookkeeping. A metric's monitor and the papercut containers' are never held
// together. The tracker's code takes every monitor through PXMonitorLock and
// states which lock a private step needs (PX_REQUIRES); the clang
// "thread-safety" preset checks that with -Wthread-safety.
#pragma once

#include <pxkit/export.h>
#include <pxkit/metrics/PXMetric.h>
#include <pxkit/net/PXJSONRequest.h>
#include <pxkit/objects/PXArray.h>
#include <pxkit/objects/PXDate.h>
#include <pxkit/objects/PXDictionary.h>
#include <pxkit/objects/PXObject.h>
#include <pxkit/objects/PXThreadSafety.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

class PXDispatchQueue;
class PXTimer;
namespace pxkit::internal {
struct MetricsTrackerAccess;
struct Recording;
class RecordingBatch;
class RecordingLog;
}  // namespace pxkit::internal

// Distribution channels reported with submissions.
PXKIT_EXPORT extern const char* const kPXMetricsChannelDefault;      // "default"
PXKIT_EXPORT extern const char* const kPXMetricsChannelDemo;         // "demo"
PXKIT_EXPORT extern const char* const kPXMetricsChannelBundle;       // "bundle"
PXKIT_EXPORT extern const char* const kPXMetricsChannelOnlineStore;  // "online"
PXKIT_EXPORT extern const char* const kPXMetricsChannelMacAppStore;  // "mas"
PXKIT_EXPORT extern const char* const kPXMetricsChannelRetail;       // "retail"
// The user-defaults key of the opt-out switch: "PXMetricsDisabled".
PXKIT_EXPORT extern const char* const kPXMetricsPreferencesDisabledKey;

// A unit of work on the metrics operation queue.
using PXMetricsOperation = std::function<void()>;

class PXKIT_EXPORT PXMetricsTracker : public PXObject {
  PX_DECLARE_CLASS(PXMetricsTracker)
 public:
  // ---- Instances -----------------------------------------------------------
  // The shared tracker, made once (thread-safe) on first call: created, its saved
  // state loaded from the host's preferences (an overdue period becomes a
  // papercut and the daily papercut timer is armed), and a hook registered that
  // saves the state when the application terminates. Never released.
  static PXMetricsTracker* sharedMetricsTracker();

  // A tracker that is not the shared one (tests, hosts with independent
  // trackers): fresh state, nothing loaded, no termination hook. Dates are now.
  PXMetricsTracker();
  ~PXMetricsTracker() override;

  // ---- Identity ------------------------------------------------------------
  // The random per-installation ID (upper-case canonical UUID) kept in the
  // by-host preferences under "MetricsRandomSystemID"; made and stored on first
  // use. Absent only if no UUID could be made.
  static PXString systemID();

  // ---- Recording (any thread; each does nothing while `enabled` is false,
  //      otherwise queues the recording and returns at once) ------------------
  // Recordings are applied on the operation queue in call order per thread,
  // after the operations enqueued before them and before those enqueued after.
  // Identities are passed as views and copied into the operation; a default
  // std::string_view (or an absent PXString) is an absent qualifier, the same
  // metric as an empty one. Nothing is allocated before the `enabled` check.
  //
  // Adds `delta` to the metric's value.
  void updateMetricValue(int32_t delta, std::string_view identifier, std::string_view primary = {},
                         std::string_view secondary = {});
  // Starts or continues usage; with a non-zero interval (seconds) usage stops by
  // itself that long after the last call.
  void startOrContinueUsageWithAutostopAfterInterval(double interval, std::string_view identifier,
                                                     std::string_view primary = {},
                                                     std::string_view secondary = {});
  void stopUsageForIdentifier(std::string_view identifier, std::string_view primary = {},
                              std::string_view secondary = {});
  // Makes the metric a fixed value: this value, not persisted, submitted daily.
  void setFixedValue(int32_t value, std::string_view identifier, std::string_view primary = {},
                     std::string_view secondary = {});

  // ---- Registry (synchronous, any thread, under the registry lock) ----------
  // Adds `metric` unless a metric with its unified ID is registered; true when added.
  bool addMetric(const PXRef<PXMetric>& metric);
  void removeMetric(const PXRef<PXMetric>& metric);
  // The registered metric, or a new one registered now (empty if it cannot be registered).
  PXRef<PXMetric> metricForIdentifier(const PXString& identifier, const PXString& primary = {},
                                      const PXString& secondary = {});
  // As above, then installs the callback (it runs once, phase 0, here) and sets
  // the persistence flag; calling again replaces both.
  PXRef<PXMetric> metricForIdentifier(const PXString& identifier, const PXString& primary,
                                      const PXString& secondary,
                                      PXMetricComputeBlock withMetricComputationBlock,
                                      bool needsPersistentStorage);
  // As above, then makes it a fixed value: value, not persisted, frequency 86400 s.
  PXRef<PXMetric> metricForIdentifier(const PXString& identifier, const PXString& primary,
                                      const PXString& secondary, int32_t withValue);

  // ---- The metrics operation queue ------------------------------------------
  // Enqueues `operation` to run on the queue holding the tracker lock. Ignored when empty.
  void performMetricsOperation(PXMetricsOperation operation);
  // Runs `operation` (optional) the same way and waits: returns once every
  // operation enqueued before has finished. Must not be called from a metrics operation.
  void settleOutstandingOperationsWithOperationSync(const PXMetricsOperation& operation = {});

  // ---- Days and switches ----------------------------------------------------
  // Whole days from metricsOriginTime to `date` (now when absent), rounded at half a day.
  int32_t totalUsageDaysUntil(std::optional<PXDate> date = std::nullopt);
  // Switches automatic submission on, honours the opt-out switch from now on and
  // considers a first submission.
  void start();
  // Considers an automatic submission. While automatic submission is on,
  // mirrors the opt-out switch into `enabled`; then, unless the user opted out
  // or fewer than 86400 s have passed since lastAutoSubmissionDate, submits
  // (submitDataWithResponseHandler, no handler, `submissionDate`). Network
  // availability is a trigger of this call, never a condition of it.
  void considerAutoSubmissionWithSubmissionDate(std::optional<PXDate> submissionDate = std::nullopt);

  // ---- Submission (see docs/submission.md) ----------------------------------
  // Starts a submission unless one is in flight (then the call is dropped and
  // `handler` is never called). On the main run loop the stored papercuts are
  // packed (dataForSubmissionSync) and POSTed as JSON to metricsPostURL; when
  // nothing is stored nothing is sent. When the request succeeds the receipt
  // prunes the store (handleSubmissionReceipt), lastAutoSubmissionDate becomes
  // `submissionDate` (now minus 60 s when absent) and the state is saved; a
  // failed request changes nothing. `handler` (optional, copied) is called on
  // the main thread after that, with the request's outcome unchanged; it is
  // not called when nothing was sent or the request could not start.
  void submitDataWithResponseHandler(PXJSONResponseHandler handler = {},
                                     std::optional<PXDate> submissionDate = std::nullopt);
  // The next submission's body, {"papercuts":[...]} of every stored papercut,
  // oldest first, as compact JSON. Cuts the due papercuts first (and, when the
  // tracker has never submitted, one of the period so far). Runs on the
  // metrics operation queue after every earlier operation and waits; must not
  // be called from a metrics operation. Absent when no papercut is stored or
  // the store cannot be written as JSON (logged).
  PXRef<PXData> dataForSubmissionSync();
  // Removes exactly the stored papercuts whose "packageID" the receipt's
  // "processedPapercutPackageIDs" names (strings; anything else names none).
  // True when `receipt` is a JSON object with that array, also when nothing
  // matched; false (nothing removed) otherwise. Any thread.
  bool handleSubmissionReceipt(const PXRef<PXData>& receipt);
  // The submission request in flight, or empty.
  PXRef<PXJSONRequest> submissionRequest() const;

  // ---- Persistence ------------------------------------------------------------
  // The whole state as a keyed archive, made on the queue after every earlier
  // operation; empty when there is nothing to store.
  PXRef<PXData> storeAsData();
  // Applies an archive made by storeAsData; false (and nothing changed) when it
  // is absent, does not decode, or is not a state dictionary.
  bool restoreFromData(const PXRef<PXData>& data);
  // Writes the state under this system's ID in the host's "Metrics" preference
  // (other systems' entries are kept) and flushes to disk.
  void saveToPreferences();
  // Restores this system's saved state, if any, then considers an automatic papercut.
  void loadFromPreferences();

  // ---- Papercuts ------------------------------------------------------------------
  // Cuts a resetting papercut stamped `timestamp` and stores it.
  void makePaperCutWithTimestamp(PXDate timestamp);
  // True when the local calendar date has changed since metricsTimeBase.
  bool shouldPerformAutomaticPapercut();
  // Cuts the day's papercut when due; with `schedule`, (re)arms the daily timer
  // for 00:00:01 local time of the next day, on the main thread.
  void considerAutomaticPapercutWithSchedule(bool schedule);

  // ---- Properties ---------------------------------------------------------------
  PXDate metricsOriginTime() const;
  void setMetricsOriginTime(PXDate date);
  PXDate metricsTimeBase() const;
  void setMetricsTimeBase(PXDate date);
  // The containers' getters return snapshots (immutable copies) taken under
  // the container's lock; changing one changes nothing in the tracker. Their
  // setters store a mutable copy of what they are given. A new tracker's are
  // empty; absent only after an absent one was set.
  //
  // A snapshot of the registered metrics, in registration order.
  PXRef<PXArray> metrics() const;
  // The papercuts cut and not yet confirmed, oldest first.
  PXRef<PXArray> paperCuts() const;
  void setPaperCuts(const PXRef<PXArray>& paperCuts);
  // Plain metric identifier → date of the newest stored papercut that carried it.
  PXRef<PXDictionary> lastPaperCutDateByMetricID() const;
  void setLastPaperCutDateByMetricID(const PXRef<PXDictionary>& dates);
  std::optional<PXDate> lastAutoSubmissionDate() const;
  void setLastAutoSubmissionDate(std::optional<PXDate> date);
  // The host's free-form data, kept with the state as "Storage".
  PXRef<PXDictionary> userData() const;
  void setUserData(const PXRef<PXDictionary>& userData);
  PXRef<PXTimer> automaticPapercutTimer() const;
  void setAutomaticPapercutTimer(PXRef<PXTimer> timer);
  PXString channel() const;
  void setChannel(PXString channel);
  bool autoSubmissionEnabled() const noexcept {
    return autoSubmissionEnabled_.load(std::memory_order_relaxed);
  }
  void setAutoSubmissionEnabled(bool enabled);
  // Where submissions are POSTed: the metrics collection endpoint, path
  // "/metrics/post". A host points the tracker at its own endpoint here, before start().
  PXString metricsPostURL() const;
  void setMetricsPostURL(PXString url);
  // Recording allowed; mirrors the negation of the opt-out switch once started.
  bool enabled() const noexcept { return enabled_.load(std::memory_order_relaxed); }
  void setEnabled(bool enabled);

 private:
  friend struct PXMetricsTrackerTestAccess;
  friend struct pxkit::internal::MetricsTrackerAccess;
  // Queues `recording` (see metrics/internal/PXMetricsRecordingLog.h) unless disabled.
  void enqueueRecording(const pxkit::internal::Recording& recording);
  // Applies a batch of recordings in order, on the queue.
  void applyRecordings(const pxkit::internal::RecordingBatch& batch) PX_REQUIRES(monitor());
  // The registered metric for an identity, found without allocating; created on
  // first use. Runs in a recording job, which holds the tracker lock; takes the
  // registry lock inside it.
  PXRef<PXMetric> metricForRecording(std::string_view identifier, std::string_view primary,
                                     std::string_view secondary) PX_REQUIRES(monitor());
  void registerSubmissionTriggers();
  void registerStartTrigger();
  void unregisterSubmissionTriggers();
  void setSubmissionRequest(PXRef<PXJSONRequest> request);
  // The submission accepted by submitDataWithResponseHandler, on the main thread.
  void sendSubmission(PXJSONResponseHandler handler, PXDate submissionDate);

  mutable std::mutex propertyLock_;  // the atomic properties below
  PXDate metricsOriginTime_;
  PXDate metricsTimeBase_;
  PXRef<PXMutableArray> metrics_;
  PXRef<PXMutableDictionary> metricsDict_;  // also the registry lock
  PXRef<PXMutableArray> paperCuts_;
  PXRef<PXMutableDictionary> lastPaperCutDateByMetricID_;
  std::optional<PXDate> lastAutoSubmissionDate_;
  PXRef<PXMutableDictionary> userData_;
  std::unique_ptr<pxkit::internal::RecordingLog> recordingLog_;  // recordings on their way to the queue
  // Metrics removed from the registry so far: a batch reuses the metric it
  // found for the previous recording of the same identity while this is unchanged.
  std::atomic<uint64_t> metricRemovals_{0};
  std::unique_ptr<PXDispatchQueue> metricsOperationQueue_;
  PXRef<PXTimer> automaticPapercutTimer_;
  PXString channel_;
  std::atomic<bool> autoSubmissionEnabled_{false};
  bool autoSubmissionScheduled_ = false;  // guarded by the tracker lock
  PXString metricsPostURL_;
  std::atomic<bool> enabled_{true};
  // The length of the last state archive stored or restored: the room the next one is written into.
  std::atomic<size_t> storedStateLength_{0};
  PXRef<PXObject> preferenceObservationToken_;
  PXRef<PXObject> startObservationToken_;
  std::atomic<bool> networkObserved_{false};  // the "networkAvailable" trigger is registered
  PXRef<PXJSONRequest> submissionRequest_;    // under propertyLock_
};
