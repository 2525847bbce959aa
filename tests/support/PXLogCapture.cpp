#include "support/PXLogCapture.h"

#include <algorithm>

PXLogCapture::PXLogCapture() {
  PXLogSetHandler([this](PXLogLevel level, std::string_view line) {
    std::lock_guard lock(mutex_);
    entries_.emplace_back(level, std::string(line));
  });
}

PXLogCapture::~PXLogCapture() {
  PXLogSetHandler(nullptr);
}

std::vector<std::string> PXLogCapture::lines(PXLogLevel atLeast) const {
  std::lock_guard lock(mutex_);
  std::vector<std::string> lines;
  for (const auto& [level, line] : entries_) {
    if (level >= atLeast) lines.push_back(line);
  }
  return lines;
}

std::vector<PXLogCapture::Entry> PXLogCapture::entries() const {
  std::lock_guard lock(mutex_);
  return entries_;
}

bool PXLogCapture::contains(std::string_view line) const {
  std::lock_guard lock(mutex_);
  return std::any_of(entries_.begin(), entries_.end(), [&](const Entry& e) { return e.second == line; });
}

void PXLogCapture::clear() {
  std::lock_guard lock(mutex_);
  entries_.clear();
}
