// Captures the kit's log lines for the length of a scope.
//
//   PXLogCapture log;
//   tracker->doSomething();
//   EXPECT_THAT(log.lines(), ElementsAre("PXMetric: value overflow"));
//
// Installs itself as the PXLog handler on construction and restores the system
// log on destruction; one capture is active at a time. Lines may arrive from any
// thread; lines() returns a snapshot.
#pragma once

#include <mutex>
#include <string>
#include <string_view>
#include <vector>

class PXLogCapture {
 public:
  PXLogCapture();
  ~PXLogCapture();
  PXLogCapture(const PXLogCapture&) = delete;
  PXLogCapture& operator=(const PXLogCapture&) = delete;

  // Every line captured so far, in arrival order.
  std::vector<std::string> lines() const;
  // Whether some line equals `line` exactly.
  bool contains(std::string_view line) const;
  // Forgets the lines captured so far.
  void clear();

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> lines_;
};
