// PXKit — one tracked metric.
//
// A PXMetric is a named signed 32-bit counter that can also accumulate usage
// time (whole seconds during which some activity was in use), carry a free-form
// dictionary of extra data, and be recomputed on demand by a callback its owner
// installs. It is identified by the triple identifier / primary / secondary.
//
// Metrics are owned and driven by PXMetricsTracker from its serial metrics
// operation queue; hosts normally record through the tracker and never touch a
// PXMetric directly.
//
//   PXRef<PXMetric> m = PXMake<PXMetric>();
//   m->startOrContinueUsageWithAutostopAfterInterval(10);   // t = 100
//   ...                                                      // t = 105
//   m->computeMetric();                                      // value() == 5
//
// Usage time is measured on the kit's clock (PXDate::now()), in seconds since
// the reference date; `value` counts whole seconds, and the fraction of a second
// pending at each compute is dropped.
//
// Thread safety: each metric has its own recursive lock (its monitor), held by
// updateValue, metricIsTrue, computeMetric, resetMetric and archiving; the
// string properties and submissionFrequency are atomic. Starting and stopping
// usage rely on the tracker's serial queue for exclusion.
#pragma once

#include <pxkit/export.h>
#include <pxkit/objects/PXCoder.h>
#include <pxkit/objects/PXDictionary.h>
#include <pxkit/objects/PXKeyedArchiver.h>
#include <pxkit/objects/PXObject.h>

#include <atomic>
#include <functional>
#include <mutex>

class PXMetric;

// Phases in which the compute callback is called.
enum PXMetricComputePhase : int {
  PXMetricComputePhaseInstalled = 0,  // once, when installed; the result is ignored
  PXMetricComputePhaseCompute = 1,    // from computeMetric, after usage time is committed; ignored
  PXMetricComputePhaseReset = 2,      // from resetMetric: true clears metricData, false keeps it
};

// The owner's compute/reset callback. Runs with the metric's lock held (phases 1
// and 2), so it may touch the metric but must not wait for another thread that
// needs this metric.
using PXMetricComputeBlock = std::function<bool(PXMetric& metric, PXMetricComputePhase phase)>;

class PXKIT_EXPORT PXMetric : public PXObject, public PXCoding {
  PX_DECLARE_CLASS(PXMetric)
 public:
  // value 0, submissionFrequency 0.0, needsPersistentStorage true, no usage running,
  // no strings, no data, no callback.
  PXMetric();
  ~PXMetric() override;

  // ---- Properties --------------------------------------------------------
  PXString identifier() const;
  void setIdentifier(PXString identifier);
  PXString primary() const;
  void setPrimary(PXString primary);
  PXString secondary() const;
  void setSecondary(PXString secondary);
  int32_t value() const noexcept { return value_.load(std::memory_order_relaxed); }
  void setValue(int32_t value);
  // Seconds between submissions of this metric; 0 = every papercut.
  double submissionFrequency() const;
  void setSubmissionFrequency(double seconds);
  // Extra data filled by compute callbacks; may be empty.
  PXRef<PXMutableDictionary> metricData() const;
  void setMetricData(PXRef<PXMutableDictionary> data);
  bool needsPersistentStorage() const noexcept {
    return needsPersistentStorage_.load(std::memory_order_relaxed);
  }
  void setNeedsPersistentStorage(bool persistent);
  PXMetricComputeBlock computeMetricBlock() const;
  // Stores a copy of the callback and, when present, calls it at once with phase 0
  // on the calling thread (its result is ignored).
  void setComputeMetricBlock(PXMetricComputeBlock block);

  // ---- Usage time --------------------------------------------------------
  // Commits what ran so far and (re)starts usage now; with a non-zero interval,
  // usage stops by itself `interval` seconds from now unless started again.
  void startOrContinueUsageWithAutostopAfterInterval(double interval);
  // Commits what ran so far (clipped at a passed autostop) and stops.
  void stopUsage();

  // ---- Value -------------------------------------------------------------
  void updateValue(int32_t delta);
  // Sets the value to 1 (a yes/no metric that is true).
  void metricIsTrue();
  // Adds the pending whole seconds of usage to the value and calls the callback with phase 1.
  void computeMetric();
  // True exactly when the value is not 0.
  bool shouldSubmitMetric() const noexcept { return value() != 0; }
  // Clears metricData unless the callback (phase 2) says no; zeroes the value of
  // persisted metrics only (a non-persisted metric describes current state and
  // keeps its value). Usage timing is untouched.
  void resetMetric();

  // ---- Archiving ---------------------------------------------------------
  // Computes first, then writes "identifier", "primary", "secondary", "value", "metricData".
  void encodeWithCoder(PXKeyedArchiver& coder) override;
  // Reads those five keys; everything else keeps its initial value.
  [[nodiscard]] bool initWithCoder(PXKeyedUnarchiver& coder) override;

  PXString description() const override;
  // The metric's own recursive lock (see Thread safety above).
  PXMonitor& monitor() const override { return lock_; }

 private:
  friend struct PXMetricTestAccess;
  // Commits the running stretch into uncommittedUsageTime; returns now.
  double _updateUncommittedUsageTime();

  // The metric's own recursive lock, which monitor() returns. Kept in the
  // object rather than made on first use: a large registry locks every metric
  // in turn, and each would otherwise cost an allocation and a pointer chase.
  // Ordered by use: what saving reads of every metric of a large registry comes
  // first, next to the reference count, so that fewer cache lines are fetched.
  mutable PXMonitor lock_;
  std::atomic<bool> needsPersistentStorage_{true};
  std::atomic<int32_t> value_{0};
  PXString identifier_;
  PXString primary_;
  PXString secondary_;
  PXRef<PXMutableDictionary> metricData_;
  double startedUsageTimeInterval_ = 0.0;
  double autostopTime_ = 0.0;
  double autostopTimeoutInterval_ = 0.0;
  double uncommittedUsageTime_ = 0.0;
  double submissionFrequency_ = 0.0;
  mutable std::mutex propertyLock_;  // the atomic properties
  PXMetricComputeBlock computeMetricBlock_;
};
