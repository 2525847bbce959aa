// PXKit — the user's workspace: the machine's power state, as notifications.
//
// The shared workspace owns a notification centre of its own, on which the kit
// posts kPXWorkspaceWillSleepNotification before the machine suspends and
// kPXWorkspaceDidWakeNotification after it has resumed (sender: the shared
// workspace; on the main thread). Observing either name on that centre starts
// the listener (the login manager's sleep signal on the system bus; with no
// system bus, no such notifications are posted and nothing fails).
//
//   PXWorkspace::sharedWorkspace()->notificationCenter()->addObserverForName(
//       kPXWorkspaceDidWakeNotification, nullptr, nullptr,
//       [](const PXNotification&) { rearmWallClockTimers(); });
//
// Thread safety: any thread.
#pragma once

#include <pxkit/export.h>
#include <pxkit/objects/PXObject.h>
#include <pxkit/platform/PXNotificationCenter.h>

class PXKIT_EXPORT PXWorkspace : public PXObject {
  PX_DECLARE_CLASS(PXWorkspace)

 public:
  // The shared workspace. Never null; lives until the process ends.
  static PXWorkspace* sharedWorkspace();

  // The workspace's notification centre (not the default centre). Never null;
  // lives as long as the workspace.
  PXNotificationCenter* notificationCenter() const noexcept { return center_.get(); }

 private:
  PXWorkspace();
  PXRef<PXNotificationCenter> center_;
};
