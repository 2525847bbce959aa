// Submission and receipts: the stored papercuts go to the metrics collection
// endpoint as one JSON document, and the endpoint's receipt names those that
// may be dropped. Also the opt-out switch and the triggers that consider an
// automatic submission.
#include <pxkit/foundation/PXObjectBlockObserver.h>
#include <pxkit/metrics/PXMetricsTracker.h>
#include <pxkit/net/PXJSONSerialization.h>
#include <pxkit/net/PXNetworkAvailabilityMonitor.h>
#include <pxkit/platform/PXLog.h>
#include <pxkit/platform/PXOperationQueue.h>
#include <pxkit/platform/PXUserDefaultsController.h>

#include <memory>
#include <string>
#include <unordered_set>
#include <utility>
#include <vector>

#include "metrics/internal/PXMetricsTrackerInternal.h"

namespace {

// "values." followed by the opt-out key: the path observed on the shared
// user-defaults controller.
PXString optOutKeyPath() {
  return PXString(std::string("values.") + kPXMetricsPreferencesDisabledKey);
}

// A day between automatic submissions, in seconds.
constexpr double kAutoSubmissionInterval = 86400.0;

}  // namespace

// ---- Considering -----------------------------------------------------------------------

void PXMetricsTracker::considerAutoSubmissionWithSubmissionDate(std::optional<PXDate> submissionDate) {
  if (!autoSubmissionEnabled()) return;
  PXUserDefaultsController* controller = PXUserDefaultsController::sharedUserDefaultsController();
  bool disabled = controller->values()->valueForKey(kPXMetricsPreferencesDisabledKey).boolValue();
  // One switch: recording and submission go off (and on) together.
  setEnabled(!disabled);
  if (disabled) return;
  if (std::optional<PXDate> last = lastAutoSubmissionDate()) {
    double elapsed = PXDate::now().timeIntervalSinceDate(*last);
    // Written so that an undefined comparison (NaN) also waits.
    if (!(elapsed >= kAutoSubmissionInterval)) return;
  }
  submitDataWithResponseHandler({}, submissionDate);
}

// ---- Submitting ------------------------------------------------------------------------

void PXMetricsTracker::submitDataWithResponseHandler(PXJSONResponseHandler handler,
                                                     std::optional<PXDate> submissionDate) {
  {
    PXMonitorLock lock(monitor());
    // The single-flight guard is this flag, not the request: a call made
    // before the request has started is dropped too.
    if (autoSubmissionScheduled_) return;
    autoSubmissionScheduled_ = true;
  }
  PXDate date = submissionDate.value_or(PXDate::now().dateByAddingTimeInterval(-60));
  // Held weakly until the request starts: a tracker released meanwhile sends nothing.
  PXOperationQueue::mainQueue()->addOperationWithBlock(
      [weak = PXWeakRef<PXMetricsTracker>(this), handler = std::move(handler), date]() mutable {
        if (PXRef<PXMetricsTracker> tracker = weak.lock()) tracker->sendSubmission(std::move(handler), date);
      });
}

void PXMetricsTracker::sendSubmission(PXJSONResponseHandler handler, PXDate submissionDate) {
  // A request still running clears the flag when it finishes.
  if (submissionRequest()) return;
  PXRef<PXData> data = dataForSubmissionSync();
  PXErrorRef error;
  PXRef<PXJSONRequest> started;
  // Set once the completion has run, so that a request finishing inside its
  // own start is never kept as the one in flight.
  auto finished = std::make_shared<bool>(false);
  if (data) {
    PXRef<PXMetricsTracker> self(this);
    auto completion = [self, handler = std::move(handler), submissionDate, finished](
                          PXJSONRequest* request, bool success, uint32_t cancelled, const PXValue& object,
                          PXError* parseError) {
      *finished = true;
      // An error status (404, 500) is an exchange that succeeded and a
      // submission that did not: whatever its body says, nothing changes.
      int32_t status = request->responseStatusCode();
      if (success && status >= 200 && status < 300) {
        self->handleSubmissionReceipt(request->responseBodyData());
        {
          PXMonitorLock lock(self->monitor());
          // Recorded even when the body was no receipt and nothing was pruned.
          self->setLastAutoSubmissionDate(submissionDate);
        }
        PXOperationQueue::mainQueue()->addOperationWithBlock([self] { self->saveToPreferences(); });
      }
      if (handler) handler(request, success, cancelled, object, parseError);
      self->setSubmissionRequest({});
      PXMonitorLock lock(self->monitor());
      self->autoSubmissionScheduled_ = false;
    };
    started = PXJSONRequest::startedJSONRequestWithURL(metricsPostURL(), PXValue(data), std::move(completion),
                                                       &error);
  }
  if (!error && started) {
    if (!*finished) setSubmissionRequest(std::move(started));  // running
    return;
  }
  // Nothing to send, or the request could not start: back to idle, silently.
  setSubmissionRequest({});
  PXMonitorLock lock(monitor());
  autoSubmissionScheduled_ = false;
}

PXRef<PXData> PXMetricsTracker::dataForSubmissionSync() {
  PXRef<PXData> data;
  settleOutstandingOperationsWithOperationSync([this, &data] {
    // A tracker that never submitted sends the period so far with its first submission.
    if (!lastAutoSubmissionDate()) makePaperCutWithTimestamp(metricsTimeBase());
    considerAutomaticPapercutWithSchedule(/*schedule=*/false);
    PXRef<PXMutableArray> cuts = pxkit::internal::livePaperCuts(*this);
    if (!cuts) return;
    PXMonitorLock cutsLock(cuts->monitor());
    if (cuts->count() == 0) return;
    // The store itself, written while its lock is held.
    auto document = PXMutableDictionary::dictionary();
    document->setObject(PXValue(cuts), "papercuts");
    // The writer refuses what JSON cannot hold (a date, data) as the validity
    // check would, in the same single walk over the store.
    data = PXJSONSerialization::dataWithJSONObject(PXValue(document), 0, nullptr);
    if (!data) PXLog("Submission dictionary could not be packed as JSON");
  });
  return data;
}

bool PXMetricsTracker::handleSubmissionReceipt(const PXRef<PXData>& receipt) {
  if (!receipt) return false;
  PXRef<PXDictionary> answer = PXJSONSerialization::JSONObjectWithData(receipt, 0, nullptr).dictionaryValue();
  if (!answer) return false;
  PXRef<PXArray> ids = answer->objectForKey("processedPapercutPackageIDs").arrayValue();
  if (!ids) return false;
  // Package IDs are strings; a number or anything else in the list names no papercut.
  std::unordered_set<std::string_view> named;
  for (const PXValue& id : *ids) {
    if (id.isString()) named.insert(id.stringValue());
  }
  PXRef<PXMutableArray> cuts = pxkit::internal::livePaperCuts(*this);
  if (!cuts) return true;
  PXMonitorLock cutsLock(cuts->monitor());
  std::vector<PXValue> kept;
  kept.reserve(cuts->count());
  for (const PXValue& cut : *cuts) {
    PXRef<PXDictionary> papercut = cut.dictionaryValue();
    PXValue packageID = papercut ? papercut->objectForKey("packageID") : PXValue();
    if (packageID.isString() && named.count(packageID.stringValue())) continue;
    kept.push_back(cut);
  }
  if (kept.size() == cuts->count()) return true;
  willChangeValueForKey("paperCuts");
  cuts->setArray(std::move(kept));  // in one step, the others in their order
  didChangeValueForKey("paperCuts");
  return true;
}

PXRef<PXJSONRequest> PXMetricsTracker::submissionRequest() const {
  std::lock_guard lock(propertyLock_);
  return submissionRequest_;
}

void PXMetricsTracker::setSubmissionRequest(PXRef<PXJSONRequest> request) {
  PXRef<PXJSONRequest> previous;  // released outside the lock
  std::lock_guard lock(propertyLock_);
  previous = std::exchange(submissionRequest_, std::move(request));
}

// ---- Triggers -------------------------------------------------------------------------

void PXMetricsTracker::registerSubmissionTriggers() {
  // Any change of the opt-out preference or of network availability considers
  // a submission, which also re-reads the switch into `enabled`.
  PXWeakRef<PXMetricsTracker> weak(this);
  auto consider = [weak](PXObject*, const PXString&, const PXDictionary&, PXObject*) {
    if (PXRef<PXMetricsTracker> tracker = weak.lock()) tracker->considerAutoSubmissionWithSubmissionDate();
  };
  preferenceObservationToken_ = PXObjectBlockObserver::addObserverForKeyPath(
      *PXUserDefaultsController::sharedUserDefaultsController(), optOutKeyPath().view(),
      PXKeyValueObservingOptionNew | PXKeyValueObservingOptionOld, this, consider);
  // The shared monitor is made (and switched on) on the main run loop, so a
  // tracker made on another thread never waits for the main thread here.
  PXOperationQueue::mainQueue()->addOperationWithBlock([weak, consider] {
    PXRef<PXMetricsTracker> tracker = weak.lock();
    if (!tracker) return;
    PXObjectBlockObserver::addObserverForKeyPath(
        *PXNetworkAvailabilityMonitor::sharedMonitor(), "networkAvailable",
        PXKeyValueObservingOptionNew | PXKeyValueObservingOptionOld, tracker.get(), consider);
    tracker->networkObserved_.store(true, std::memory_order_release);
  });
}

void PXMetricsTracker::registerStartTrigger() {
  // The same key path once more, on the values object: kept on purpose, see docs/compatibility.md.
  PXWeakRef<PXMetricsTracker> weak(this);
  startObservationToken_ = PXObjectBlockObserver::addObserverForKeyPath(
      *PXUserDefaultsController::sharedUserDefaultsController()->values(), optOutKeyPath().view(),
      PXKeyValueObservingOptionNew | PXKeyValueObservingOptionOld, this,
      [weak](PXObject*, const PXString&, const PXDictionary&, PXObject*) {
        if (PXRef<PXMetricsTracker> tracker = weak.lock())
          tracker->considerAutoSubmissionWithSubmissionDate();
      });
}

void PXMetricsTracker::unregisterSubmissionTriggers() {
  PXUserDefaultsController* controller = PXUserDefaultsController::sharedUserDefaultsController();
  PXObjectBlockObserver::removeObjectBlockObserversWithOwner(*controller, this, optOutKeyPath());
  if (networkObserved_.load(std::memory_order_acquire)) {
    PXObjectBlockObserver::removeObjectBlockObserversWithOwner(*PXNetworkAvailabilityMonitor::sharedMonitor(),
                                                               this, "networkAvailable");
  }
  if (startObservationToken_) {
    PXObjectBlockObserver::removeObjectBlockObserversWithOwner(*controller->values(), this, optOutKeyPath());
  }
}
