// Papercuts: the condensed report of one usage period, cut once per local
// calendar day and on demand.
#include <pxkit/foundation/PXAbsoluteTimeFire.h>
#include <pxkit/metrics/PXMetricsTracker.h>
#include <pxkit/objects/PXFormat.h>
#include <pxkit/platform/PXBundle.h>
#include <pxkit/platform/PXCalendar.h>
#include <pxkit/platform/PXDigest.h>
#include <pxkit/platform/PXOperationQueue.h>
#include <pxkit/platform/PXRunLoop.h>

#include <cmath>

#include "metrics/internal/PXMetricsTrackerInternal.h"

using namespace pxkit::internal;

void PXMetricsTracker::makePaperCutWithTimestamp(PXDate timestamp) {
  if (PXRef<PXMutableDictionary> papercut = papercutDictWithTimestamp(*this, timestamp, /*reset=*/true)) {
    addPapercut(*this, papercut);
  }
}

PXRef<PXMutableDictionary> pxkit::internal::papercutDictWithTimestamp(PXMetricsTracker& tracker,
                                                                      PXDate timestamp, bool reset,
                                                                      const PXArray* snapshot) {
  // A snapshot: metrics registered meanwhile are neither reported nor reset.
  PXRef<PXArray> taken = snapshot ? PXRef<PXArray>() : tracker.metrics();
  PXRef<PXMutableArray> dataSets =
      compileMetricsDataSetsFromMetrics(tracker, snapshot ? *snapshot : *taken, reset);
  if (!dataSets) return {};
  PXString packageID = md5ChecksumOfString(
      PXFormat("%@%f", PXMetricsTracker::systemID(), timestamp.timeIntervalSinceReferenceDate()));
  if (!packageID) return {};

  PXBundle* bundle = PXBundle::mainBundle();
  PXString channelName = tracker.channel();
  // Built in this order and cut at the first absent value: kept on purpose, see docs/compatibility.md.
  auto papercut = PXMutableDictionary::dictionary();
  std::pair<PXValue, const char*> pairs[] = {
      {packageID, "packageID"},
      {bundle->objectForInfoDictionaryKey("CFBundleIdentifier"), "applicationID"},
      {dataSets, "metrics"},
      {tracker.totalUsageDaysUntil(timestamp), "totalUsageDays"},
      {std::floor(timestamp.timeIntervalSince1970()), "timestamp"},
      {channelName ? channelName : PXString(kPXMetricsChannelDefault), "channel"},
      {bundle->objectForInfoDictionaryKey("CFBundleShortVersionString"), "applicationVersion"},
  };
  for (const auto& [value, key] : pairs) {
    if (!value) break;
    papercut->setObject(value, key);
  }
  return papercut;
}

PXRef<PXMutableArray> pxkit::internal::compileMetricsDataSetsFromMetrics(PXMetricsTracker& tracker,
                                                                         const PXArray& metricsToCompile,
                                                                         bool reset) {
  auto result = PXMutableArray::arrayWithCapacity(metricsToCompile.count());
  // Read without its lock: kept on purpose, see docs/compatibility.md.
  PXRef<PXMutableDictionary> lastDates = liveLastPaperCutDates(tracker);
  for (const PXValue& value : metricsToCompile) {
    auto* metric = dynamic_cast<PXMetric*>(value.objectPointer());
    if (!metric) continue;
    metric->computeMetric();
    if (metric->shouldSubmitMetric()) {
      PXString identifier = metric->identifier();
      double frequency = metric->submissionFrequency();
      const PXValue* last = identifier && lastDates ? lastDates->find(identifier) : nullptr;
      // Strictly greater: a metric whose frequency has exactly elapsed is reported.
      bool throttled =
          last && frequency != 0.0 && frequency > PXDate::now().timeIntervalSinceDate(last->dateValue());
      if (!throttled) {
        // The keys are shared by every data set: a store of many papercuts keeps
        // one copy of each, and whoever walks the store finds them in cache.
        static const PXValue kIdentifierKey("identifier");
        static const PXValue kPrimaryKey("primary");
        static const PXValue kSecondaryKey("secondary");
        static const PXValue kValueKey("value");
        auto dataSet = PXMutableDictionary::dictionaryWithCapacity(4);
        if (identifier) dataSet->setObject(identifier, kIdentifierKey);
        if (PXString primary = metric->primary()) dataSet->setObject(primary, kPrimaryKey);
        if (PXString secondary = metric->secondary()) dataSet->setObject(secondary, kSecondaryKey);
        dataSet->setObject(metric->value(), kValueKey);
        result->addObject(dataSet);
      }
    }
    // Every metric of the period is reset, reported or not: the whole period restarts at once.
    if (reset) metric->resetMetric();
  }
  if (reset) tracker.setMetricsTimeBase(PXDate::now());
  return result;
}

void pxkit::internal::addPapercut(PXMetricsTracker& tracker, const PXRef<PXDictionary>& papercut) {
  PXRef<PXMutableArray> cuts = livePaperCuts(tracker);
  if (!papercut || !cuts) return;
  PXMonitorLock cutsLock(cuts->monitor());
  PXRef<PXArray> dataSets = papercut->objectForKey("metrics").arrayValue();
  PXValue timestamp = papercut->objectForKey("timestamp");
  // A period with nothing to report leaves no papercut.
  if (!dataSets || !timestamp || dataSets->count() == 0) return;
  PXDate date = PXDate::dateWithTimeIntervalSince1970(timestamp.doubleValue());
  if (PXRef<PXMutableDictionary> dates = liveLastPaperCutDates(tracker)) {
    PXMonitorLock datesLock(dates->monitor());
    for (const PXValue& entry : *dataSets) {
      PXRef<PXDictionary> dataSet = entry.dictionaryValue();
      PXValue identifier = dataSet ? dataSet->objectForKey("identifier") : PXValue();
      if (!identifier) continue;
      // A recorded date is never moved backwards by an older papercut.
      const PXValue* recorded = dates->find(identifier);
      if (!recorded || recorded->dateValue() < date) dates->setObject(date, identifier);
    }
  }
  cuts->addObject(papercut);
}

PXString pxkit::internal::md5ChecksumOfString(const PXString& string) {
  if (!string) return {};
  return PXDigest::md5Hex(string.view());
}

bool PXMetricsTracker::shouldPerformAutomaticPapercut() {
  // Due when the local calendar date has changed since the period began; the
  // time within the day does not matter.
  PXDateComponents now = PXCalendar::components(PXDate::now());
  PXDateComponents base = PXCalendar::components(metricsTimeBase());
  return now.day != base.day || now.month != base.month || now.year != base.year;
}

void PXMetricsTracker::considerAutomaticPapercutWithSchedule(bool schedule) {
  if (shouldPerformAutomaticPapercut()) makePaperCutWithTimestamp(metricsTimeBase());
  if (!schedule) return;
  // 00:00:01 local time of the next calendar day. The day is found in calendar
  // terms: adding 86400 s to now would land on the same day during the first
  // hour of a 25-hour day and re-fire at once, over and over, until it passed.
  std::optional<PXDate> fireDate = PXCalendar::dateOnFollowingDay(PXDate::now(), 0, 0, 1);
  if (!fireDate) return;
  PXOperationQueue::mainQueue()->addOperationWithBlock(
      [tracker = PXRef<PXMetricsTracker>(this), date = *fireDate] {
        if (PXRef<PXTimer> previous = tracker->automaticPapercutTimer()) previous->invalidate();
        tracker->setAutomaticPapercutTimer({});
        // The timer holds the tracker weakly, so a tracker that is not the shared
        // one can still be released while its daily timer is armed.
        PXWeakRef<PXMetricsTracker> weak(tracker);
        PXRef<PXTimer> timer = PXAbsoluteTimeFire::initWithAbsoluteFireDate(
            date, nullptr,
            [weak](PXTimer* fired) {
              if (PXRef<PXMetricsTracker> owner = weak.lock()) automaticPapercutTimerFired(*owner, *fired);
            },
            PXValue());
        tracker->setAutomaticPapercutTimer(timer);
        timer->addToRunLoop(PXRunLoop::main(), kPXRunLoopCommonModes);
      });
}

void pxkit::internal::automaticPapercutTimerFired(PXMetricsTracker& owner, PXTimer& /*timer*/) {
  PXDate now = PXDate::now();
  owner.performMetricsOperation([tracker = PXRef<PXMetricsTracker>(&owner), now] {
    tracker->considerAutomaticPapercutWithSchedule(/*schedule=*/true);  // today's papercut, tomorrow's timer
    tracker->considerAutoSubmissionWithSubmissionDate(now);
    PXOperationQueue::mainQueue()->addOperationWithBlock([tracker] { tracker->saveToPreferences(); });
  });
}
