#include <pxkit/foundation/PXBlocks.h>
#include <pxkit/platform/PXRunLoop.h>

PX_DEFINE_CLASS(PXTimerBlockBox, PXObject, nullptr)

namespace PXBlocks {

PXRef<PXTimer> timerWithFireDate(PXDate fireDate, double interval, PXTimerBlock executeBlock, bool repeats) {
  PXValue userInfo;
  if (executeBlock) userInfo = PXValue(PXMake<PXTimerBlockBox>(std::move(executeBlock)));
  return PXTimer::timerWithFireDate(fireDate, interval, nullptr, &_categoryPXExecuteBlock,
                                    std::move(userInfo), repeats);
}

PXRef<PXTimer> scheduledTimerWithFireDate(PXDate fireDate, double interval, PXTimerBlock executeBlock,
                                          bool repeats, std::optional<std::string_view> inRunLoopMode) {
  PXRef<PXTimer> timer = timerWithFireDate(fireDate, interval, std::move(executeBlock), repeats);
  if (timer) timer->addToRunLoop(PXRunLoop::current(), inRunLoopMode.value_or(kPXRunLoopCommonModes));
  return timer;
}

PXRef<PXTimer> scheduledTimerFiringInTimeInterval(double timeInterval, double repeatInterval,
                                                  PXTimerBlock executeBlock,
                                                  std::optional<std::string_view> inRunLoopMode) {
  return scheduledTimerWithFireDate(PXDate::dateWithTimeIntervalSinceNow(timeInterval), repeatInterval,
                                    std::move(executeBlock), repeatInterval != 0.0, inRunLoopMode);
}

PXRef<PXTimer> scheduledTimerFiringOnceInTimeInterval(double timeInterval, PXTimerBlock executeBlock,
                                                      std::optional<std::string_view> inRunLoopMode) {
  // A one-shot timer carries an interval of 0.1 s: kept on purpose, see docs/compatibility.md.
  return scheduledTimerWithFireDate(PXDate::dateWithTimeIntervalSinceNow(timeInterval), 0.1,
                                    std::move(executeBlock), false, inRunLoopMode);
}

void _categoryPXExecuteBlock(PXTimer* timer) {
  if (!timer) return;
  PXValue userInfo = timer->userInfo();
  if (auto* box = dynamic_cast<PXTimerBlockBox*>(userInfo.objectPointer()); box && box->block())
    box->block()(timer);
}

}  // namespace PXBlocks
