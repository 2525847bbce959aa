#include <pxkit/objects/PXFormat.h>
#include <pxkit/platform/PXNotificationCenter.h>
#include <pxkit/platform/PXOperationQueue.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "platform/internal/SystemEvents.h"

const char* const kPXApplicationWillTerminateNotification = "NSApplicationWillTerminateNotification";
const char* const kPXSystemTimeZoneDidChangeNotification = "NSSystemTimeZoneDidChangeNotification";
const char* const kPXWorkspaceWillSleepNotification = "NSWorkspaceWillSleepNotification";
const char* const kPXWorkspaceDidWakeNotification = "NSWorkspaceDidWakeNotification";

// ---- Notification -------------------------------------------------------------

PX_DEFINE_CLASS(PXNotification, PXObject, [](PXClassBuilder<PXNotification>& c) {
  c.computed("name", &PXNotification::name);
  c.computed("userInfo", &PXNotification::userInfo);
})

PXNotification::PXNotification(PXString name, PXRef<PXObject> object, PXRef<PXDictionary> userInfo)
    : name_(std::move(name)), object_(std::move(object)), userInfo_(std::move(userInfo)) {}

PXRef<PXNotification> PXNotification::notificationWithName(PXString name, PXRef<PXObject> object,
                                                           PXRef<PXDictionary> userInfo) {
  return PXMake<PXNotification>(std::move(name), std::move(object), std::move(userInfo));
}

PXString PXNotification::description() const {
  PXValue object = object_ ? PXValue(object_) : PXValue();
  PXValue info = userInfo_ ? PXValue(userInfo_) : PXValue();
  return PXFormat("PXNotification %p {name = %@; object = %@; userInfo = %@}", static_cast<const void*>(this),
                  PXValue(name_), object, info);
}

// ---- Registrations ------------------------------------------------------------

namespace pxkit::internal {

// One observer registration. Shared between the centre's list, deliveries in
// progress and operations queued for it, so it outlives its removal until the
// last of those lets go.
struct NotificationRegistration {
  PXString name;                    // absent: any name
  const void* sender = nullptr;     // null: any sender (identity only, not retained)
  const PXObject* owner = nullptr;  // the observer (target/action) or the token
  PXWeakRef<PXObject> observer;     // target/action: the observer, held weakly
  bool heldWeakly = false;
  PXRef<PXObject> token;  // block registrations: the centre keeps the token alive
  PXRef<PXOperationQueue> queue;
  PXNotificationBlock block;

  std::atomic<bool> removed{false};
  std::atomic<int> running{0};  // calls in progress, on any thread

  bool matches(const PXString& postedName, const void* postedSender) const noexcept {
    return (!name || name == postedName) && (!sender || sender == postedSender);
  }
};

using Registration = NotificationRegistration;
using RegistrationList = std::vector<std::shared_ptr<Registration>>;

namespace {

// Removal waits here for calls running on other threads. Shared by every
// centre: waits are rare and short, and a queued call may outlive its centre.
std::mutex& idleMutex() {
  static auto* mutex = new std::mutex;
  return *mutex;
}
std::condition_variable& idleCondition() {
  static auto* condition = new std::condition_variable;
  return *condition;
}

// The registrations whose calls are running on this thread, innermost last.
thread_local std::vector<const Registration*> tRunning;

// Calls one registration, unless it was removed first. Keeps the count of
// running calls that removal waits on.
void invoke(const std::shared_ptr<Registration>& registration, const PXNotification& notification,
            RegistrationList* observersGone) {
  // Announce the call before looking at `removed`: a remover sets `removed`
  // before it looks at `running`, so one of the two always sees the other.
  registration->running.fetch_add(1, std::memory_order_seq_cst);
  struct Finish {
    Registration* r;
    bool pushed = false;
    ~Finish() {
      if (pushed) tRunning.pop_back();
      if (r->running.fetch_sub(1, std::memory_order_seq_cst) == 1 &&
          r->removed.load(std::memory_order_seq_cst)) {
        std::lock_guard lock(idleMutex());
        idleCondition().notify_all();
      }
    }
  } finish{registration.get()};
  if (registration->removed.load(std::memory_order_seq_cst)) return;

  PXRef<PXObject> strongObserver;
  if (registration->heldWeakly) {
    strongObserver = registration->observer.lock();
    if (!strongObserver) {
      if (observersGone) observersGone->push_back(registration);
      return;
    }
  }
  tRunning.push_back(registration.get());
  finish.pushed = true;
  registration->block(notification);
}

// Waits until `registration` (already marked removed) runs on no other thread.
void waitUntilIdle(const Registration* registration) {
  const auto own = std::count(tRunning.begin(), tRunning.end(), registration);
  if (registration->running.load(std::memory_order_seq_cst) <= own) return;
  std::unique_lock lock(idleMutex());
  idleCondition().wait(lock, [&] { return registration->running.load(std::memory_order_seq_cst) <= own; });
}

}  // namespace

struct NotificationCenterCore {
  mutable std::mutex mutex;
  // Copy-on-write: posting takes the current list and delivers outside the lock.
  std::shared_ptr<const RegistrationList> list = std::make_shared<const RegistrationList>();
  std::atomic<size_t> count{0};
  // Set on the shared centres whose system notifications start the watchers.
  std::atomic<bool> announcesSystemEvents{false};

  void add(std::shared_ptr<Registration> registration) {
    std::lock_guard lock(mutex);
    auto next = std::make_shared<RegistrationList>(*list);
    next->push_back(std::move(registration));
    count.store(next->size(), std::memory_order_release);
    list = std::move(next);
  }

  // Takes the matching registrations out of the list and marks them removed;
  // returns them so that the caller can wait for their running calls.
  template <class Predicate>
  RegistrationList remove(Predicate&& predicate) {
    RegistrationList removed;
    std::lock_guard lock(mutex);
    auto next = std::make_shared<RegistrationList>();
    next->reserve(list->size());
    for (const auto& registration : *list) {
      if (predicate(*registration)) {
        registration->removed.store(true, std::memory_order_seq_cst);
        removed.push_back(registration);
      } else {
        next->push_back(registration);
      }
    }
    if (!removed.empty()) {
      count.store(next->size(), std::memory_order_release);
      list = std::move(next);
    }
    return removed;
  }

  static NotificationCenterCore& of(PXNotificationCenter& center) { return *center.core_; }

  std::shared_ptr<const RegistrationList> snapshot() const {
    std::lock_guard lock(mutex);
    return list;
  }

  void post(const PXString& name, PXObject* sender, const PXRef<PXDictionary>& userInfo,
            PXRef<PXNotification> notification) {
    if (count.load(std::memory_order_acquire) == 0) return;
    std::shared_ptr<const RegistrationList> registrations = snapshot();
    RegistrationList observersGone;
    for (const auto& registration : *registrations) {
      if (!registration->matches(name, sender)) continue;
      if (registration->removed.load(std::memory_order_acquire)) continue;
      if (!notification)
        notification = PXNotification::notificationWithName(name, PXRef<PXObject>(sender), userInfo);
      if (registration->queue) {
        registration->queue->addOperationWithBlock(
            [registration, notification] { invoke(registration, *notification, nullptr); });
      } else {
        invoke(registration, *notification, &observersGone);
      }
    }
    if (!observersGone.empty()) {
      // Observers destroyed without removing themselves: drop their registrations.
      remove([&](const Registration& r) {
        return std::find_if(observersGone.begin(), observersGone.end(),
                            [&](const auto& gone) { return gone.get() == &r; }) != observersGone.end();
      });
    }
  }
};

void setAnnouncesSystemEvents(PXNotificationCenter& center) {
  NotificationCenterCore::of(center).announcesSystemEvents.store(true, std::memory_order_release);
}

namespace {

// The sources of the system notifications, by name, as their code registered
// them (from static initializers: made on first use, never freed).
struct SystemNotificationSources {
  std::mutex mutex;
  std::unordered_map<std::string, std::vector<std::function<void()>>> byName;
};

SystemNotificationSources& systemNotificationSources() {
  static auto* sources = new SystemNotificationSources;
  return *sources;
}

// Starts the sources of `name`, outside the lock (a source may observe in turn).
void startSystemNotificationSources(const PXString& name) {
  std::vector<std::function<void()>> starts;
  {
    SystemNotificationSources& sources = systemNotificationSources();
    std::lock_guard lock(sources.mutex);
    auto found = sources.byName.find(std::string(name.view()));
    if (found == sources.byName.end()) return;
    starts = found->second;
  }
  for (const auto& start : starts) start();
}

}  // namespace

bool addSystemNotificationSource(const char* name, std::function<void()> start) {
  if (!name || !start) return true;
  SystemNotificationSources& sources = systemNotificationSources();
  std::lock_guard lock(sources.mutex);
  sources.byName[name].push_back(std::move(start));
  return true;
}

}  // namespace pxkit::internal

using pxkit::internal::Registration;

// ---- Centre -------------------------------------------------------------------

PX_DEFINE_CLASS(PXNotificationCenter, PXObject, [](PXClassBuilder<PXNotificationCenter>&) {})

PXNotificationCenter::PXNotificationCenter()
    : core_(std::make_unique<pxkit::internal::NotificationCenterCore>()) {}

PXNotificationCenter::~PXNotificationCenter() {
  // Operations already queued for our observers must not run once we are gone.
  core_->remove([](const Registration&) { return true; });
}

PXNotificationCenter* PXNotificationCenter::defaultCenter() {
  static PXNotificationCenter* center = [] {
    auto* made = new PXNotificationCenter;  // never released
    pxkit::internal::setAnnouncesSystemEvents(*made);
    return made;
  }();
  return center;
}

PXRef<PXObject> PXNotificationCenter::addObserverForName(PXString name, const PXObject* object,
                                                         PXOperationQueue* queue, PXNotificationBlock block) {
  if (!block) return {};
  auto registration = std::make_shared<Registration>();
  registration->token = PXMake<PXObject>();
  registration->owner = registration->token.get();
  registration->name = name;
  registration->sender = object;
  registration->queue = PXRef<PXOperationQueue>(queue);
  registration->block = std::move(block);
  PXRef<PXObject> token = registration->token;
  core_->add(std::move(registration));
  if (name && core_->announcesSystemEvents.load(std::memory_order_acquire))
    pxkit::internal::startSystemNotificationSources(name);
  return token;
}

void PXNotificationCenter::addObserver(PXObject* observer, PXNotificationBlock action, PXString name,
                                       const PXObject* object) {
  if (!observer || !action) return;
  auto registration = std::make_shared<Registration>();
  registration->owner = observer;
  registration->observer = PXWeakRef<PXObject>(observer);
  registration->heldWeakly = true;
  registration->name = name;
  registration->sender = object;
  registration->block = std::move(action);
  core_->add(std::move(registration));
  if (name && core_->announcesSystemEvents.load(std::memory_order_acquire))
    pxkit::internal::startSystemNotificationSources(name);
}

void PXNotificationCenter::removeObserver(const PXObject* observer) {
  if (!observer) return;
  for (const auto& registration : core_->remove([&](const Registration& r) { return r.owner == observer; }))
    pxkit::internal::waitUntilIdle(registration.get());
}

void PXNotificationCenter::removeObserver(const PXObject* observer, const PXString& name,
                                          const PXObject* object) {
  if (!observer) return;
  auto matches = [&](const Registration& r) {
    return r.owner == observer && (!name || r.name == name) && (!object || r.sender == object);
  };
  for (const auto& registration : core_->remove(matches)) pxkit::internal::waitUntilIdle(registration.get());
}

void PXNotificationCenter::postNotification(const PXRef<PXNotification>& notification) {
  if (!notification) return;
  core_->post(notification->name(), notification->object(), notification->userInfo(), notification);
}

void PXNotificationCenter::postNotificationName(PXString name, PXObject* object,
                                                PXRef<PXDictionary> userInfo) {
  core_->post(name, object, userInfo, nullptr);
}

size_t PXNotificationCenter::observerCount() const noexcept {
  return core_->count.load(std::memory_order_acquire);
}
