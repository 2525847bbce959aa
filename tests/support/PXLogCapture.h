// Captures the kit's log lines with their levels while it lives (as the PXLog handler; one at a
// time): EXPECT_THAT(log.lines(), ElementsAre("PXMetric: value overflow")). Lines may arrive from
// any thread; the readers return snapshots.
#pragma once

#include <pxkit/platform/PXLog.h>

#include <algorithm>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

class PXLogCapture {
 public:
  using Entry = std::pair<PXLogLevel, std::string>;

  PXLogCapture() {
    PXLogSetHandler([this](PXLogLevel level, std::string_view line) {
      std::lock_guard lock(mutex_);
      entries_.emplace_back(level, std::string(line));
    });
  }
  ~PXLogCapture() { PXLogSetHandler(nullptr); }
  PXLogCapture(const PXLogCapture&) = delete;
  PXLogCapture& operator=(const PXLogCapture&) = delete;

  // The lines at `atLeast` or above, in arrival order.
  std::vector<std::string> lines(PXLogLevel atLeast = PXLogLevel::Debug) const {
    std::vector<std::string> lines;
    for (const auto& [level, line] : entries()) {
      if (level >= atLeast) lines.push_back(line);
    }
    return lines;
  }
  std::vector<Entry> entries() const {
    std::lock_guard lock(mutex_);
    return entries_;
  }
  bool contains(std::string_view line) const { return std::ranges::count(lines(), line) > 0; }
  void clear() {
    std::lock_guard lock(mutex_);
    entries_.clear();
  }

 private:
  mutable std::mutex mutex_;
  std::vector<Entry> entries_;
};
