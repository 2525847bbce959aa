// PXKit — notification centres: named broadcasts inside the process.
//
// A notification centre hands each posted notification (a name, an optional
// sender object and an optional user-info dictionary) to every observer whose
// registration matches it: the same name (or any name) and the same sender (or
// any sender). Two centres exist for the whole process:
//  - PXNotificationCenter::defaultCenter(): the application's notifications,
//    among them kPXApplicationWillTerminateNotification and
//    kPXSystemTimeZoneDidChangeNotification;
//  - PXWorkspace::sharedWorkspace()->notificationCenter(): the workspace's,
//    kPXWorkspaceWillSleepNotification and kPXWorkspaceDidWakeNotification.
// Observing a system notification on its centre starts the system-event
// watchers that post it (docs/linux-sources.md says where each comes from).
//
//   PXNotificationCenter* center = PXNotificationCenter::defaultCenter();
//   PXRef<PXObject> token = center->addObserverForName(
//       kPXSystemTimeZoneDidChangeNotification, nullptr, PXOperationQueue::mainQueue(),
//       [](const PXNotification&) { rescheduleDailyWork(); });
//   ...
//   center->removeObserver(token.get());
//
//   // Target/action: the observer is held weakly and told until it is destroyed.
//   center->addObserver(this, &Trampoline::invoke, kPXWorkspaceDidWakeNotification);
//
// Thread safety: every member may be called from any thread, also from inside
// an observer. Observers registered without a queue run on the posting thread,
// inside postNotification, in registration order. Observers with a queue run
// later, on that queue (PXOperationQueue::mainQueue(): the main run loop),
// never inline. An observer added while a notification is being delivered is
// not told of that notification. Once removeObserver has returned, the removed
// observer is not running and will not be called again, not even for a
// notification already in delivery or queued: removal waits for a call running
// on another thread to return (so an observer must not block on a thread that
// is removing it), and a removal from inside the observer itself returns at
// once. No lock of the centre is held while an observer runs. Posting with no
// observers costs one atomic load.
#pragma once

#include <pxkit/export.h>
#include <pxkit/objects/PXDictionary.h>
#include <pxkit/objects/PXObject.h>
#include <pxkit/objects/PXRef.h>
#include <pxkit/objects/PXString.h>

#include <functional>
#include <memory>

class PXOperationQueue;

namespace pxkit::internal {
struct NotificationCenterCore;
}

// ---- Names of the platform's notifications ------------------------------------
// Posted on the default centre, sender PXApplication::sharedApplication(), on
// the main thread, at most once per process (see PXApplication.h).
PXKIT_EXPORT extern const char* const
    kPXApplicationWillTerminateNotification;  // "NSApplicationWillTerminateNotification"
// Posted on the default centre, no sender, on the main thread, once per change
// of the system time zone, after the kit's calendar has forgotten the old zone.
PXKIT_EXPORT extern const char* const
    kPXSystemTimeZoneDidChangeNotification;  // "NSSystemTimeZoneDidChangeNotification"
// Posted on the workspace centre, sender PXWorkspace::sharedWorkspace(), on the
// main thread, when the machine is about to sleep and when it has woken up.
PXKIT_EXPORT extern const char* const
    kPXWorkspaceWillSleepNotification;                                  // "NSWorkspaceWillSleepNotification"
PXKIT_EXPORT extern const char* const kPXWorkspaceDidWakeNotification;  // "NSWorkspaceDidWakeNotification"

// One posted notification. Immutable; may be read from any thread.
class PXKIT_EXPORT PXNotification : public PXObject {
  PX_DECLARE_CLASS(PXNotification)

 public:
  // A notification; `object` is retained for the notification's lifetime,
  // `userInfo` may be empty.
  static PXRef<PXNotification> notificationWithName(PXString name, PXRef<PXObject> object = {},
                                                    PXRef<PXDictionary> userInfo = {});
  PXNotification(PXString name, PXRef<PXObject> object, PXRef<PXDictionary> userInfo);

  const PXString& name() const noexcept { return name_; }
  // The sender, or null when the notification has none.
  PXObject* object() const noexcept { return object_.get(); }
  // The user-info dictionary, or an empty reference when there is none.
  const PXRef<PXDictionary>& userInfo() const noexcept { return userInfo_; }

  // "NSConcreteNotification 0x... {name = ...; object = ...; userInfo = ...}"-like text.
  PXString description() const override;

 private:
  PXString name_;
  PXRef<PXObject> object_;
  PXRef<PXDictionary> userInfo_;
};

// What an observer runs. Stored as a copy; called with the notification.
using PXNotificationBlock = std::function<void(const PXNotification& notification)>;

class PXKIT_EXPORT PXNotificationCenter : public PXObject {
  PX_DECLARE_CLASS(PXNotificationCenter)

 public:
  // A centre of one's own, independent of the shared ones.
  PXNotificationCenter();
  ~PXNotificationCenter() override;

  // The process's default centre. Never null; lives until the process ends.
  static PXNotificationCenter* defaultCenter();

  // ---- Observing ---------------------------------------------------------------
  // Registers `block` for notifications called `name` (absent: any name) from
  // `object` (null: any sender; compared by identity and not retained: remove
  // the registration before the sender is destroyed, or a new object at the
  // same address would match). With `queue` null the block runs inline on the
  // posting thread; otherwise it is added to `queue` (retained) and runs there
  // later. Returns the registration's token: the centre keeps the registration
  // until removeObserver(token) is called, whether or not the caller keeps the
  // token. An empty block registers nothing and returns an empty reference.
  PXRef<PXObject> addObserverForName(PXString name, const PXObject* object, PXOperationQueue* queue,
                                     PXNotificationBlock block);

  // Target/action: registers `action` on behalf of `observer` (held weakly:
  // once the observer has been destroyed the action is no longer called and
  // the registration goes away by itself). The action runs on the posting
  // thread while the centre holds a strong reference to the observer. The
  // action must not itself hold `observer` strongly, or the observer would
  // never be destroyed. A null observer or an empty action registers nothing.
  void addObserver(PXObject* observer, PXNotificationBlock action, PXString name,
                   const PXObject* object = nullptr);
  // The same with a member function of the observer as action.
  template <class T>
  void addObserver(T* observer, void (T::*action)(const PXNotification&), PXString name,
                   const PXObject* object = nullptr) {
    addObserver(
        observer, [observer, action](const PXNotification& n) { (observer->*action)(n); }, std::move(name),
        object);
  }

  // Removes every registration made for `observer` (by addObserver) or the one
  // whose token `observer` is (from addObserverForName). Unknown or null: no-op.
  void removeObserver(const PXObject* observer);
  // Removes the registrations of `observer` (or of the token) that match `name`
  // (absent: any) and `object` (null: any).
  void removeObserver(const PXObject* observer, const PXString& name, const PXObject* object);

  // ---- Posting -------------------------------------------------------------------
  // Delivers `notification` to every matching observer (see Thread safety).
  void postNotification(const PXRef<PXNotification>& notification);
  // Makes the notification only when someone observes it, then posts it.
  void postNotificationName(PXString name, PXObject* object = nullptr, PXRef<PXDictionary> userInfo = {});

  // The number of registrations (for diagnostics and tests).
  size_t observerCount() const noexcept;

 private:
  friend class PXWorkspace;
  friend struct pxkit::internal::NotificationCenterCore;
  std::unique_ptr<pxkit::internal::NotificationCenterCore> core_;
};
