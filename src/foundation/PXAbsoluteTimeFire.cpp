#include <pxkit/foundation/PXAbsoluteTimeFire.h>
#include <pxkit/foundation/PXAssociatedTargetBlockTrampoline.h>
#include <pxkit/foundation/PXRuntime.h>
#include <pxkit/platform/PXNotificationCenter.h>
#include <pxkit/platform/PXRunLoop.h>
#include <pxkit/platform/PXWorkspace.h>

const char* const kPXAbsoluteTimeFireAbsoluteTimeKey = "kPXAbsoluteTimeFireAbsoluteTimeKey";

namespace PXAbsoluteTimeFire {

PXRef<PXTimer> initWithAbsoluteFireDate(PXDate date, PXObject* target, PXTimer::Action action,
                                        PXValue userInfo) {
  PXRef<PXTimer> timer =
      PXTimer::timerWithFireDate(date, 0, target, std::move(action), std::move(userInfo), false);
  if (!timer) return {};

  // The trampoline holds the date and only a weak reference to the timer, so
  // the timer (which owns the trampoline) and its attachment never keep each
  // other alive.
  PXWeakRef<PXTimer> weakTimer(timer);
  auto trampoline = PXAssociatedTargetBlockTrampoline::trampolineWithInvocationBlock(
      [weakTimer, date](PXObject*) {
        if (PXRef<PXTimer> armed = weakTimer.lock()) armed->setFireDate(date);
      },
      [](PXAssociatedTargetBlockTrampoline* dying) {
        PXNotificationCenter::defaultCenter()->removeObserver(dying);
        PXWorkspace::sharedWorkspace()->notificationCenter()->removeObserver(dying);
      });
  if (!trampoline) return timer;  // behaves as a plain timer

  PXAssociatedTargetBlockTrampoline* observer = trampoline.get();
  auto invoke = [observer](const PXNotification& notification) { observer->invoke(notification); };
  PXNotificationCenter::defaultCenter()->addObserver(observer, invoke,
                                                     kPXSystemTimeZoneDidChangeNotification);
  PXWorkspace::sharedWorkspace()->notificationCenter()->addObserver(observer, invoke,
                                                                    kPXWorkspaceDidWakeNotification);
  PXRuntime::setRetainedAssociatedObject(*timer, PXValue(trampoline), kPXAbsoluteTimeFireAbsoluteTimeKey);
  return timer;
}

PXRef<PXTimer> initWithAbsoluteFireDate(PXDate date, PXTimerBlock executeBlock) {
  PXValue userInfo;
  if (executeBlock) userInfo = PXValue(PXMake<PXTimerBlockBox>(std::move(executeBlock)));
  return initWithAbsoluteFireDate(date, nullptr, &PXBlocks::_categoryPXExecuteBlock, std::move(userInfo));
}

PXRef<PXTimer> timerWithAbsoluteFireDate(PXDate date, PXTimerBlock executeBlock) {
  return initWithAbsoluteFireDate(date, std::move(executeBlock));
}

PXRef<PXTimer> scheduledTimerWithAbsoluteFireDate(PXDate date, PXTimerBlock executeBlock,
                                                  std::optional<std::string_view> inRunLoopMode) {
  PXRef<PXTimer> timer = timerWithAbsoluteFireDate(date, std::move(executeBlock));
  if (timer) timer->addToRunLoop(PXRunLoop::current(), inRunLoopMode.value_or(kPXRunLoopCommonModes));
  return timer;
}

}  // namespace PXAbsoluteTimeFire
