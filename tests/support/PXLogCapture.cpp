#include "support/PXLogCapture.h"

#include <pxkit/platform/PXLog.h>

#include <algorithm>

PXLogCapture::PXLogCapture() {
  PXLogSetHandler([this](std::string_view line) {
    std::lock_guard lock(mutex_);
    lines_.emplace_back(line);
  });
}

PXLogCapture::~PXLogCapture() {
  PXLogSetHandler(nullptr);
}

std::vector<std::string> PXLogCapture::lines() const {
  std::lock_guard lock(mutex_);
  return lines_;
}

bool PXLogCapture::contains(std::string_view line) const {
  std::lock_guard lock(mutex_);
  return std::find(lines_.begin(), lines_.end(), line) != lines_.end();
}

void PXLogCapture::clear() {
  std::lock_guard lock(mutex_);
  lines_.clear();
}
