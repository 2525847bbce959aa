// PXKit — timers whose action is a callback.
//
// A callback timer is an ordinary PXTimer whose action is the execute-block
// action (_categoryPXExecuteBlock) and whose user info holds a copy of the
// callback, boxed in a PXTimerBlock. The timer owns that copy for its lifetime.
//
//   // Every 5 seconds, first in 1 second, on the calling thread's run loop:
//   PXRef<PXTimer> t = PXBlocks::scheduledTimerFiringInTimeInterval(
//       1.0, 5.0, [](PXTimer* timer) { refresh(); });
//
// Thread safety: scheduling adds the timer to the calling thread's run loop;
// the callback runs on that thread.
#pragma once

#include <pxkit/export.h>
#include <pxkit/platform/PXTimer.h>

#include <functional>
#include <optional>
#include <string_view>

// What a callback timer runs: called with the firing timer.
using PXTimerBlock = std::function<void(PXTimer* timer)>;

// The boxed callback kept in a callback timer's user info.
class PXKIT_EXPORT PXTimerBlockBox : public PXObject {
  PX_DECLARE_CLASS(PXTimerBlockBox)
 public:
  explicit PXTimerBlockBox(PXTimerBlock block) : block_(std::move(block)) {}
  const PXTimerBlock& block() const noexcept { return block_; }

 private:
  const PXTimerBlock block_;
};

namespace PXBlocks {

// A callback timer, not scheduled. `interval` in seconds.
PXKIT_EXPORT PXRef<PXTimer> timerWithFireDate(PXDate fireDate, double interval, PXTimerBlock executeBlock,
                                              bool repeats);
// The same, added to the calling thread's run loop in `mode`, or in the common
// modes when no mode is given.
PXKIT_EXPORT PXRef<PXTimer> scheduledTimerWithFireDate(
    PXDate fireDate, double interval, PXTimerBlock executeBlock, bool repeats,
    std::optional<std::string_view> inRunLoopMode = std::nullopt);
// First firing `timeInterval` seconds from now; then every `repeatInterval`
// seconds, or once when `repeatInterval` is 0.0.
PXKIT_EXPORT PXRef<PXTimer> scheduledTimerFiringInTimeInterval(
    double timeInterval, double repeatInterval, PXTimerBlock executeBlock,
    std::optional<std::string_view> inRunLoopMode = std::nullopt);
// Fires once, `timeInterval` seconds from now.
PXKIT_EXPORT PXRef<PXTimer> scheduledTimerFiringOnceInTimeInterval(
    double timeInterval, PXTimerBlock executeBlock,
    std::optional<std::string_view> inRunLoopMode = std::nullopt);
// The execute-block action: calls the callback boxed in the timer's user info
// with the timer; does nothing when there is none.
PXKIT_EXPORT void _categoryPXExecuteBlock(PXTimer* timer);

}  // namespace PXBlocks
