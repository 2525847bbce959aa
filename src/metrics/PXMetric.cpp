#include <pxkit/metrics/PXMetric.h>
#include <pxkit/objects/PXDate.h>
#include <pxkit/objects/PXFormat.h>

#include <cmath>
#include <limits>

PX_DEFINE_CLASS(PXMetric, PXObject, [](PXClassBuilder<PXMetric>& c) {
  c.computed("identifier", &PXMetric::identifier, &PXMetric::setIdentifier, PXPropertyOwnership::Retain);
  c.computed("primary", &PXMetric::primary, &PXMetric::setPrimary, PXPropertyOwnership::Retain);
  c.computed("secondary", &PXMetric::secondary, &PXMetric::setSecondary, PXPropertyOwnership::Retain);
  c.computed("value", &PXMetric::value, &PXMetric::setValue);
  c.computed("submissionFrequency", &PXMetric::submissionFrequency, &PXMetric::setSubmissionFrequency);
  c.computed("metricData", &PXMetric::metricData, &PXMetric::setMetricData, PXPropertyOwnership::Retain);
  c.computed("needsPersistentStorage", &PXMetric::needsPersistentStorage,
             &PXMetric::setNeedsPersistentStorage);
  c.factory();
})

namespace {

// Whole seconds of a usage stretch, truncated toward zero; the fraction is
// dropped on purpose (the value counts whole seconds).
int32_t wholeSeconds(double seconds) {
  if (!(seconds < static_cast<double>(std::numeric_limits<int32_t>::max())))
    return std::numeric_limits<int32_t>::max();
  return static_cast<int32_t>(seconds);
}

}  // namespace

PXMetric::PXMetric() = default;
PXMetric::~PXMetric() = default;

// ---- Properties ---------------------------------------------------------------

PXString PXMetric::identifier() const {
  return getAtomic(propertyLock_, identifier_);
}

void PXMetric::setIdentifier(PXString identifier) {
  setObservable(propertyLock_, identifier_, std::move(identifier), "identifier");
}

PXString PXMetric::primary() const {
  return getAtomic(propertyLock_, primary_);
}

void PXMetric::setPrimary(PXString primary) {
  setObservable(propertyLock_, primary_, std::move(primary), "primary");
}

PXString PXMetric::secondary() const {
  return getAtomic(propertyLock_, secondary_);
}

void PXMetric::setSecondary(PXString secondary) {
  setObservable(propertyLock_, secondary_, std::move(secondary), "secondary");
}

void PXMetric::setValue(int32_t value) {
  willChangeValueForKey("value");
  value_.store(value, std::memory_order_relaxed);
  didChangeValueForKey("value");
}

double PXMetric::submissionFrequency() const {
  return getAtomic(propertyLock_, submissionFrequency_);
}

void PXMetric::setSubmissionFrequency(double seconds) {
  setObservable(propertyLock_, submissionFrequency_, std::move(seconds), "submissionFrequency");
}

PXRef<PXMutableDictionary> PXMetric::metricData() const {
  return getAtomic(propertyLock_, metricData_);
}

void PXMetric::setMetricData(PXRef<PXMutableDictionary> data) {
  setObservable(propertyLock_, metricData_, std::move(data), "metricData");
}

void PXMetric::setNeedsPersistentStorage(bool persistent) {
  willChangeValueForKey("needsPersistentStorage");
  needsPersistentStorage_.store(persistent, std::memory_order_relaxed);
  didChangeValueForKey("needsPersistentStorage");
}

PXMetricComputeBlock PXMetric::computeMetricBlock() const {
  std::lock_guard lock(monitor());
  return computeMetricBlock_;
}

void PXMetric::setComputeMetricBlock(PXMetricComputeBlock block) {
  {
    std::lock_guard lock(monitor());
    computeMetricBlock_ = std::move(block);
  }
  // Phase 0 runs once, at installation, on the installing thread.
  if (PXMetricComputeBlock installed = computeMetricBlock()) installed(*this, PXMetricComputePhaseInstalled);
}

// ---- Usage time -----------------------------------------------------------------

double PXMetric::_updateUncommittedUsageTime() {
  double now = PXDate::now().timeIntervalSinceReferenceDate();
  std::lock_guard lock(monitor());
  if (!(startedUsageTimeInterval_ > 0)) return now;  // nothing running
  if (autostopTime_ > 0 && autostopTimeoutInterval_ > 0 && now > autostopTime_) {
    // The autostop passed: count up to that moment only, and stop.
    double stretch = autostopTime_ - startedUsageTimeInterval_;
    uncommittedUsageTime_ += stretch > 0 ? stretch : 0;
    startedUsageTimeInterval_ = 0;
    autostopTime_ = 0;
  } else {
    // Still running (reaching the autostop exactly still counts as running).
    double stretch = now - startedUsageTimeInterval_;
    uncommittedUsageTime_ += stretch > 0 ? stretch : 0;
    startedUsageTimeInterval_ = now;
  }
  return now;
}

void PXMetric::startOrContinueUsageWithAutostopAfterInterval(double interval) {
  double now = _updateUncommittedUsageTime();
  // Written without the lock: the tracker's serial queue gives exclusion here.
  startedUsageTimeInterval_ = now;
  autostopTimeoutInterval_ = interval;
  autostopTime_ = interval != 0 ? now + interval : 0;
}

void PXMetric::stopUsage() {
  _updateUncommittedUsageTime();
  startedUsageTimeInterval_ = 0;
  autostopTime_ = 0;
  autostopTimeoutInterval_ = 0;
}

// ---- Value ------------------------------------------------------------------------

void PXMetric::updateValue(int32_t delta) {
  std::lock_guard lock(monitor());
  // Wraps like the 32-bit counter it is, without signed-overflow UB.
  setValue(static_cast<int32_t>(static_cast<uint32_t>(value()) + static_cast<uint32_t>(delta)));
}

void PXMetric::metricIsTrue() {
  std::lock_guard lock(monitor());
  setValue(1);
}

void PXMetric::computeMetric() {
  if (startedUsageTimeInterval_ > 0) _updateUncommittedUsageTime();
  std::lock_guard lock(monitor());
  if (uncommittedUsageTime_ > 0) {
    updateValue(wholeSeconds(uncommittedUsageTime_));
    uncommittedUsageTime_ = 0;
  }
  if (computeMetricBlock_) computeMetricBlock_(*this, PXMetricComputePhaseCompute);
}

void PXMetric::resetMetric() {
  std::lock_guard lock(monitor());
  bool clear = true;
  if (computeMetricBlock_) clear = computeMetricBlock_(*this, PXMetricComputePhaseReset);
  if (PXRef<PXMutableDictionary> data = metricData(); clear && data) data->removeAllObjects();
  // A fixed value keeps its value: kept on purpose, see docs/compatibility.md.
  if (needsPersistentStorage()) setValue(0);
}

// ---- Archiving ----------------------------------------------------------------------

void PXMetric::encodeWithCoder(PXKeyedArchiver& coder) {
  std::lock_guard lock(monitor());
  computeMetric();  // commit pending usage seconds before writing the value
  coder.encodeObject(identifier(), "identifier");
  coder.encodeObject(primary(), "primary");
  coder.encodeObject(secondary(), "secondary");
  coder.encodeInteger(value(), "value");
  coder.encodeObject(metricData(), "metricData");
}

bool PXMetric::initWithCoder(PXKeyedUnarchiver& coder) {
  setIdentifier(coder.decodeObjectForKey("identifier").stringObject());
  setPrimary(coder.decodeObjectForKey("primary").stringObject());
  setSecondary(coder.decodeObjectForKey("secondary").stringObject());
  setValue(static_cast<int32_t>(coder.decodeIntegerForKey("value")));
  // Taken as decoded: the unarchiver restores a mutable dictionary as mutable.
  setMetricData(coder.decodeObjectForKey("metricData").mutableDictionaryValue());
  return !coder.hasFailed();
}

PXString PXMetric::description() const {
  return PXFormat("<PXMetric: %p> {%@}-{%@}-{%@} value=%d", this, identifier(), primary(), secondary(),
                  value());
}
