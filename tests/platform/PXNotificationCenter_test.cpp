#include <gtest/gtest.h>
#include <pxkit/platform/PXNotificationCenter.h>
#include <pxkit/platform/PXOperationQueue.h>

#include <atomic>
#include <future>
#include <thread>
#include <vector>

#include "platform/internal/SystemEvents.h"
#include "support/PXRunLoopUntil.h"

namespace {

class Listener : public PXObject {
 public:
  void heard(const PXNotification& notification) { names.push_back(notification.name().str()); }
  std::vector<std::string> names;
};

const auto ignore = [](const PXNotification&) {};

}  // namespace

// Observers of a name, a sender, both or neither (names compare by text, not case-folded).
TEST(PXNotificationCenter, InlineObserversAreCalledOnThePostingThreadInRegistrationOrder) {
  auto center = PXMake<PXNotificationCenter>();
  PXRef<PXObject> sender = PXMake<PXObject>(), stranger = PXMake<PXObject>();
  const std::pair<const char*, PXObject*> registrations[] = {
      {"changed", nullptr}, {nullptr, sender.get()},   {"changed", stranger.get()},
      {"Changed", nullptr}, {nullptr, stranger.get()}, {"changed", sender.get()}};
  std::vector<int> order;
  std::thread::id ranOn, poster;
  PXRef<PXNotification> seen;
  for (int i = 0; i < 6; ++i) {
    auto [name, from] = registrations[i];
    center->addObserverForName(name ? PXString(name) : PXString(), from, nullptr,
                               [&, i](const PXNotification& n) {
                                 order.push_back(i);
                                 ranOn = std::this_thread::get_id();
                                 seen = PXRef<PXNotification>(const_cast<PXNotification*>(&n));
                               });
  }
  std::thread([&] {
    poster = std::this_thread::get_id();
    center->postNotificationName("changed", sender.get(), PXDictionary::dictionaryWithEntries({{"new", 1}}));
    order.push_back(99);  // after the post returned
  }).join();
  EXPECT_EQ(order, (std::vector<int>{0, 1, 5, 99}));
  EXPECT_EQ(ranOn, poster);
  ASSERT_TRUE(seen && seen->userInfo());
  EXPECT_EQ(seen->object(), sender.get());
  EXPECT_EQ(seen->userInfo()->objectForKey("new"), PXValue(1));
  EXPECT_TRUE(seen->description().str().starts_with("PXNotification 0x")) << seen->description().str();
  // A prepared notification reaches the observers as it is.
  auto prepared = PXNotification::notificationWithName("changed");
  center->postNotification(prepared);
  EXPECT_EQ(seen.get(), prepared.get());
  EXPECT_TRUE(prepared->description().str().ends_with("{name = changed; object = (null); userInfo = (null)}"))
      << prepared->description().str();
}

TEST(PXNotificationCenter, BadArgumentsAreIgnored) {
  // Registered before the observer of "x" below, which would call a null start.
  pxkit::internal::addSystemNotificationSource("x", nullptr);
  pxkit::internal::addSystemNotificationSource(nullptr, [] {});
  PXNotificationCenter* center = PXNotificationCenter::defaultCenter();
  auto listener = PXMake<Listener>();
  const size_t before = center->observerCount();
  EXPECT_FALSE(center->addObserverForName("x", nullptr, nullptr, nullptr));
  center->addObserver(nullptr, ignore, "x");
  center->addObserver(listener.get(), PXNotificationBlock(), "x");
  EXPECT_EQ(center->observerCount(), before);
  center->addObserver(listener.get(), &Listener::heard, "x");
  center->removeObserver(nullptr);
  center->removeObserver(nullptr, "x", nullptr);
  center->postNotification(nullptr);
  center->postNotificationName("x");
  EXPECT_EQ(listener->names, (std::vector<std::string>{"x"}));
  center->removeObserver(listener.get());
}

TEST(PXNotificationCenter, MainQueueObserversRunLaterOnTheMainRunLoop) {
  auto center = PXMake<PXNotificationCenter>();
  int heard = 0;
  std::thread::id ranOn;
  PXRef<PXObject> token =
      center->addObserverForName("later", nullptr, PXOperationQueue::mainQueue(), [&](const PXNotification&) {
        ++heard;
        ranOn = std::this_thread::get_id();
      });
  std::thread([&] { center->postNotificationName("later"); }).join();
  center->postNotificationName("later");  // posted on the main thread: still not inline
  EXPECT_EQ(heard, 0);
  ASSERT_TRUE(PXRunLoopUntil([&] { return heard == 2; }));
  EXPECT_EQ(ranOn, std::this_thread::get_id());
  // A queued delivery of an observer removed before it ran is dropped.
  center->postNotificationName("later");
  center->removeObserver(token.get());
  bool sentinel = false;  // the main queue runs in order: after it, the delivery had its turn
  PXOperationQueue::mainQueue()->addOperationWithBlock([&] { sentinel = true; });
  ASSERT_TRUE(PXRunLoopUntil([&] { return sentinel; }));
  EXPECT_EQ(heard, 2);
}

TEST(PXNotificationCenter, RemovalByTokenObserverNameAndSender) {
  PXRef<PXObject> a = PXMake<PXObject>(), b = PXMake<PXObject>();
  const std::vector<std::string> all = {"x from a", "x from b", "y from a"};
  const struct {
    bool byToken;
    const char* name;  // null with no sender: the one-argument removal
    bool senderA;
    std::vector<std::string> stillHeard;
  } rows[] = {
      {true, nullptr, false, all},
      {false, nullptr, false, {}},
      {false, "x", false, {"y from a"}},
      {false, nullptr, true, {"x from b", "y from a"}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(::testing::Message() << &row - rows);
    auto center = PXMake<PXNotificationCenter>();
    auto listener = PXMake<Listener>();
    std::vector<std::string> heard;
    auto record = [&](const PXNotification& n) {
      heard.push_back(n.name().str() + (n.object() == a.get() ? " from a" : " from b"));
    };
    center->addObserver(listener.get(), record, "x", a.get());
    center->addObserver(listener.get(), record, "x", b.get());
    center->addObserver(listener.get(), record, "y");
    PXRef<PXObject> token = center->addObserverForName("x", nullptr, nullptr, ignore);
    const PXObject* who = row.byToken ? token.get() : listener.get();
    if (row.name || row.senderA) {
      center->removeObserver(who, row.name ? PXString(row.name) : PXString(),
                             row.senderA ? a.get() : nullptr);
    } else {
      center->removeObserver(who);
    }
    center->postNotificationName("x", a.get());
    center->postNotificationName("x", b.get());
    center->postNotificationName("y", a.get());
    EXPECT_EQ(heard, row.stillHeard);
  }
}

TEST(PXNotificationCenter, TargetIsHeldWeaklyAndItsRegistrationGoesWithIt) {
  auto center = PXMake<PXNotificationCenter>();
  auto listener = PXMake<Listener>();
  center->addObserver(listener.get(), &Listener::heard, "one");
  center->addObserver(listener.get(), &Listener::heard, "two");
  EXPECT_EQ(listener->retainCount(), 1u);  // the centre holds no count
  for (const char* name : {"one", "three", "two"}) center->postNotificationName(name);
  EXPECT_EQ(listener->names, (std::vector<std::string>{"one", "two"}));
  listener = nullptr;  // destroyed without removing itself
  for (const char* name : {"one", "two"}) center->postNotificationName(name);
  EXPECT_EQ(center->observerCount(), 0u);
}

// Observers removed during a delivery (itself included) are not called; one added hears later posts only.
TEST(PXNotificationCenter, ObserversChangedDuringDeliveryCountFromTheNextCall) {
  auto center = PXMake<PXNotificationCenter>();
  std::vector<std::string> calls;
  PXRef<PXObject> second;
  PXRef<PXObject> first = center->addObserverForName("go", nullptr, nullptr, [&](const PXNotification&) {
    calls.push_back("first");
    center->removeObserver(second.get());  // a later one, in the same delivery
    center->removeObserver(first.get());   // itself: must not wait for itself
    center->addObserverForName("go", nullptr, nullptr,
                               [&](const PXNotification&) { calls.push_back("added"); });
  });
  second = center->addObserverForName("go", nullptr, nullptr,
                                      [&](const PXNotification&) { calls.push_back("2"); });
  center->postNotificationName("go");
  center->postNotificationName("go");
  EXPECT_EQ(calls, (std::vector<std::string>{"first", "added"}));
  EXPECT_EQ(center->observerCount(), 1u);
}

TEST(PXNotificationCenter, RemovalWaitsForACallRunningOnAnotherThread) {
  auto center = PXMake<PXNotificationCenter>();
  std::promise<void> entered;
  std::atomic<bool> removalReturned{false}, returnedWhileRunning{false};
  PXRef<PXObject> token = center->addObserverForName("slow", nullptr, nullptr, [&](const PXNotification&) {
    entered.set_value();
    // Once out of the list, the removal must wait for this call: it cannot be seen returning.
    while (center->observerCount() != 0) std::this_thread::yield();
    for (int spins = 0; spins < 20000 && !removalReturned; ++spins) std::this_thread::yield();
    returnedWhileRunning = removalReturned.load();
  });
  std::thread poster([&] { center->postNotificationName("slow"); });
  entered.get_future().wait();
  center->removeObserver(token.get());
  removalReturned = true;
  poster.join();
  EXPECT_FALSE(returnedWhileRunning) << "removeObserver returned while the observer was still running";
}
