// The opt-out switch and the triggers that consider an automatic submission.
#include <pxkit/foundation/PXObjectBlockObserver.h>
#include <pxkit/metrics/PXMetricsTracker.h>
#include <pxkit/platform/PXUserDefaultsController.h>

namespace {

// "values." followed by the opt-out key: the path observed on the shared
// user-defaults controller.
PXString optOutKeyPath() {
  return PXString(std::string("values.") + kPXMetricsPreferencesDisabledKey);
}

}  // namespace

void PXMetricsTracker::considerAutoSubmissionWithSubmissionDate(std::optional<PXDate> /*submissionDate*/) {
  // The date is ignored: kept on purpose, see docs/compatibility.md.
  if (!autoSubmissionEnabled()) return;
  PXUserDefaultsController* controller = PXUserDefaultsController::sharedUserDefaultsController();
  bool disabled = controller->values()->valueForKey(kPXMetricsPreferencesDisabledKey).boolValue();
  setEnabled(!disabled);
}

void PXMetricsTracker::registerSubmissionTriggers() {
  // Any change of the opt-out preference considers a submission, which
  // re-reads the switch into `enabled`.
  PXWeakRef<PXMetricsTracker> weak(this);
  auto consider = [weak](PXObject*, const PXString&, const PXDictionary&, PXObject*) {
    if (PXRef<PXMetricsTracker> tracker = weak.lock()) tracker->considerAutoSubmissionWithSubmissionDate();
  };
  preferenceObservationToken_ = PXObjectBlockObserver::addObserverForKeyPath(
      *PXUserDefaultsController::sharedUserDefaultsController(), optOutKeyPath().view(),
      PXKeyValueObservingOptionNew | PXKeyValueObservingOptionOld, this, consider);
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
  if (startObservationToken_) {
    PXObjectBlockObserver::removeObjectBlockObserversWithOwner(*controller->values(), this, optOutKeyPath());
  }
}
