// Captures the kit's log lines, with their levels, for the length of a scope.
//
//   PXLogCapture log;
//   tracker->doSomething();
//   EXPECT_THAT(log.lines(), ElementsAre("PXMetric: value overflow"));
//   EXPECT_EQ(log.lines(PXLogLevel::Warning), ...);   // lines at warning or above
//
// Installs itself as the PXLog handler on construction and restores the system
// log on destruction; one capture is active at a time. Lines may arrive from any
// thread; lines() and entries() return snapshots.
#pragma once

#include <pxkit/platform/PXLog.h>

#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

class PXLogCapture {
 public:
  using Entry = std::pair<PXLogLevel, std::string>;

  PXLogCapture();
  ~PXLogCapture();
  PXLogCapture(const PXLogCapture&) = delete;
  PXLogCapture& operator=(const PXLogCapture&) = delete;

  // Every line captured so far at `atLeast` or above, in arrival order.
  std::vector<std::string> lines(PXLogLevel atLeast = PXLogLevel::Debug) const;
  // Every line captured so far with its level, in arrival order.
  std::vector<Entry> entries() const;
  // Whether some line equals `line` exactly.
  bool contains(std::string_view line) const;
  // Forgets the lines captured so far.
  void clear();

 private:
  mutable std::mutex mutex_;
  std::vector<Entry> entries_;
};
