#include <gtest/gtest.h>
#include <pxkit/platform/PXApplication.h>
#include <pxkit/platform/PXNotificationCenter.h>
#include <pxkit/platform/PXOperationQueue.h>
#include <pxkit/platform/PXWorkspace.h>

#include <atomic>
#include <future>
#include <thread>
#include <vector>

#include "platform/internal/SystemEvents.h"
#include "support/PXDBusMock.h"

namespace {

// An observer object for target/action registrations.
class Listener : public PXObject {
 public:
  void heard(const PXNotification& notification) { names.push_back(notification.name().str()); }
  std::vector<std::string> names;
};

}  // namespace

TEST(PXNotificationCenter, MatchesByNameAndSender) {
  PXRef<PXObject> a = PXMake<PXObject>();
  PXRef<PXObject> b = PXMake<PXObject>();
  struct Row {
    const char* what;
    const char* observedName;  // null: any name
    PXObject* observedSender;  // null: any sender
    const char* postedName;
    PXObject* postedSender;
    bool heard;
  };
  const Row rows[] = {
      {"same name, any sender", "ping", nullptr, "ping", a.get(), true},
      {"same name, no sender posted", "ping", nullptr, "ping", nullptr, true},
      {"other name", "ping", nullptr, "pong", a.get(), false},
      {"same name, that sender", "ping", a.get(), "ping", a.get(), true},
      {"same name, other sender", "ping", a.get(), "ping", b.get(), false},
      {"sender wanted, none posted", "ping", a.get(), "ping", nullptr, false},
      {"any name, that sender", nullptr, a.get(), "pong", a.get(), true},
      {"any name, other sender", nullptr, a.get(), "pong", b.get(), false},
      {"any name, any sender", nullptr, nullptr, "whatever", nullptr, true},
      {"names compare by text, not case-folded", "Ping", nullptr, "ping", nullptr, false},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    auto center = PXMake<PXNotificationCenter>();
    int heard = 0;
    center->addObserverForName(row.observedName ? PXString(row.observedName) : PXString(), row.observedSender,
                               nullptr, [&](const PXNotification&) { ++heard; });
    center->postNotificationName(row.postedName, row.postedSender);
    EXPECT_EQ(heard, row.heard ? 1 : 0);
  }
}

TEST(PXNotificationCenter, InlineObserversGetTheNotificationOnThePostingThreadInRegistrationOrder) {
  auto center = PXMake<PXNotificationCenter>();
  PXRef<PXObject> sender = PXMake<PXObject>();
  auto info = PXDictionary::dictionaryWithEntries({{"new", 1}});
  std::vector<int> order;
  std::thread::id ranOn;
  PXRef<PXNotification> seen;
  for (int i = 0; i < 3; ++i) {
    center->addObserverForName("changed", nullptr, nullptr, [&, i](const PXNotification& n) {
      order.push_back(i);
      ranOn = std::this_thread::get_id();
      seen = PXRef<PXNotification>(const_cast<PXNotification*>(&n));
    });
  }
  std::thread::id poster;
  std::thread([&] {
    poster = std::this_thread::get_id();
    center->postNotificationName("changed", sender.get(), info);
    order.push_back(99);  // after the post returned
  }).join();
  EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 99}));
  EXPECT_EQ(ranOn, poster);
  ASSERT_TRUE(seen);
  EXPECT_EQ(seen->name(), "changed");
  EXPECT_EQ(seen->object(), sender.get());
  ASSERT_TRUE(seen->userInfo());
  EXPECT_EQ(seen->userInfo()->objectForKey("new"), PXValue(1));

  // A prepared notification reaches the observers as it is.
  auto prepared = PXNotification::notificationWithName("changed");
  center->postNotification(prepared);
  EXPECT_EQ(seen.get(), prepared.get());
  EXPECT_FALSE(seen->userInfo());
}

TEST(PXNotificationCenter, MainQueueObserversRunLaterOnTheMainRunLoop) {
  auto center = PXMake<PXNotificationCenter>();
  int heard = 0;
  std::thread::id ranOn;
  PXRef<PXObject> token = center->addObserverForName("later", nullptr, PXOperationQueue::mainQueue(),
                                                     [&](const PXNotification& n) {
                                                       EXPECT_EQ(n.name(), "later");
                                                       ++heard;
                                                       ranOn = std::this_thread::get_id();
                                                     });
  // Posted on the main thread: still not inline.
  center->postNotificationName("later");
  EXPECT_EQ(heard, 0);
  ASSERT_TRUE(PXIterateMainContextUntil([&] { return heard == 1; }));
  EXPECT_EQ(ranOn, std::this_thread::get_id());

  // Posted on another thread: delivered on the main thread.
  std::thread([&] { center->postNotificationName("later"); }).join();
  EXPECT_EQ(heard, 1);
  ASSERT_TRUE(PXIterateMainContextUntil([&] { return heard == 2; }));
  EXPECT_EQ(ranOn, std::this_thread::get_id());

  // A queued delivery of an observer removed before it ran is dropped.
  center->postNotificationName("later");
  center->removeObserver(token.get());
  bool sentinel = false;  // the main queue runs in order: after it, the delivery had its turn
  PXOperationQueue::mainQueue()->addOperationWithBlock([&] { sentinel = true; });
  ASSERT_TRUE(PXIterateMainContextUntil([&] { return sentinel; }));
  EXPECT_EQ(heard, 2);
}

TEST(PXNotificationCenter, RemovalByTokenObserverNameAndSender) {
  PXRef<PXObject> a = PXMake<PXObject>();
  PXRef<PXObject> b = PXMake<PXObject>();
  enum class Who { Token, Listener, Other };
  const std::vector<std::string> all = {"x from a", "x from b", "y from a"};
  struct Row {
    const char* what;
    Who who;
    const char* name;  // null with no sender: the one-argument removal
    bool senderA;
    std::vector<std::string> stillHeard;  // of "x from a", "x from b", "y from a"
  };
  const Row rows[] = {
      {"by token: that block only", Who::Token, nullptr, false, all},
      {"by observer: all of it", Who::Listener, nullptr, false, {}},
      {"by observer and name", Who::Listener, "x", false, {"y from a"}},
      {"by observer and a name it never used", Who::Listener, "z", false, all},
      // Only the registration made for that sender; one made for any sender stays.
      {"by observer and sender", Who::Listener, nullptr, true, {"x from b", "y from a"}},
      {"another observer: nothing", Who::Other, nullptr, false, all},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    auto center = PXMake<PXNotificationCenter>();
    auto listener = PXMake<Listener>();
    auto other = PXMake<Listener>();
    std::vector<std::string> heard;
    auto record = [&](const PXNotification& n) {
      heard.push_back(n.name().str() + (n.object() == a.get() ? " from a" : " from b"));
    };
    center->addObserver(listener.get(), record, "x", a.get());
    center->addObserver(listener.get(), record, "x", b.get());
    center->addObserver(listener.get(), record, "y");
    PXRef<PXObject> token = center->addObserverForName("x", nullptr, nullptr, [](const PXNotification&) {});
    const PXObject* who = row.who == Who::Token   ? token.get()
                          : row.who == Who::Other ? other.get()
                                                  : listener.get();
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
  center->postNotificationName("one");
  center->postNotificationName("three");
  center->postNotificationName("two");
  EXPECT_EQ(listener->names, (std::vector<std::string>{"one", "two"}));

  listener = nullptr;  // destroyed without removing itself
  center->postNotificationName("one");
  center->postNotificationName("two");
  EXPECT_EQ(center->observerCount(), 0u);
}

// Changes made during a delivery count from the next one: an observer removed
// is not called afterwards (itself included), one added hears only later posts.
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
                                      [&](const PXNotification&) { calls.push_back("second"); });
  center->postNotificationName("go");
  center->postNotificationName("go");
  EXPECT_EQ(calls, (std::vector<std::string>{"first", "added"}));
  EXPECT_EQ(center->observerCount(), 1u);
}

TEST(PXNotificationCenter, RemovalWaitsForACallRunningOnAnotherThread) {
  auto center = PXMake<PXNotificationCenter>();
  std::promise<void> entered;
  std::atomic<bool> removalReturned{false};
  std::atomic<bool> returnedWhileRunning{false};
  PXRef<PXObject> token = center->addObserverForName("slow", nullptr, nullptr, [&](const PXNotification&) {
    entered.set_value();
    // Stay inside until the removal has taken the registration out of the list;
    // from then on it must wait for us, so it cannot be seen returning.
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

TEST(PXNotificationCenter, ConcurrentPostingAndObserverChurn) {
  auto center = PXMake<PXNotificationCenter>();
  constexpr int kPosters = 3;
  constexpr int kPostsEach = 2000;
  constexpr int kChurners = 2;
  constexpr int kChurnRounds = 300;
  std::atomic<int> permanent{0};
  center->addObserverForName("tick", nullptr, nullptr, [&](const PXNotification&) { permanent++; });

  std::atomic<bool> lateCall{false};
  std::vector<std::thread> threads;
  for (int p = 0; p < kPosters; ++p) {
    threads.emplace_back([&] {
      for (int i = 0; i < kPostsEach; ++i) center->postNotificationName("tick");
    });
  }
  for (int c = 0; c < kChurners; ++c) {
    threads.emplace_back([&] {
      auto listener = PXMake<Listener>();
      for (int round = 0; round < kChurnRounds; ++round) {
        auto removed = std::make_shared<std::atomic<bool>>(false);
        PXRef<PXObject> token =
            center->addObserverForName("tick", nullptr, nullptr, [removed, &lateCall](const PXNotification&) {
              if (removed->load()) lateCall = true;
            });
        center->addObserver(
            listener.get(),
            [removed, &lateCall](const PXNotification&) {
              if (removed->load()) lateCall = true;
            },
            "tick");
        center->removeObserver(token.get());
        center->removeObserver(listener.get());
        removed->store(true);  // from here on, a call would be a call after removal
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(permanent.load(), kPosters * kPostsEach);
  EXPECT_FALSE(lateCall.load());
  EXPECT_EQ(center->observerCount(), 1u);
}

// ---- Sources of system notifications, by registration -----------------------------------

TEST(PXNotificationCenter, ObservingARegisteredSystemNotificationStartsItsSources) {
  // A source registered the way the sleep/wake and time-zone code register theirs.
  std::vector<std::string> started;
  pxkit::internal::addSystemNotificationSource("PXTestSourceNotification",
                                               [&] { started.push_back("first source"); });
  pxkit::internal::addSystemNotificationSource("PXTestSourceNotification",
                                               [&] { started.push_back("second source"); });
  auto ignore = [](const PXNotification&) {};
  struct Case {
    PXNotificationCenter* center;
    PXString name;
    std::vector<std::string> expected;
  };
  auto privateCenter = PXMake<PXNotificationCenter>();
  const Case cases[] = {
      {privateCenter.get(), "PXTestSourceNotification", {}},  // a centre of one's own starts nothing
      {PXNotificationCenter::defaultCenter(), "SomethingElse", {}},
      {PXNotificationCenter::defaultCenter(), PXString(), {}},  // any name: no source
      {PXNotificationCenter::defaultCenter(), "PXTestSourceNotification", {"first source", "second source"}},
      {PXWorkspace::sharedWorkspace()->notificationCenter(),
       "PXTestSourceNotification",
       {"first source", "second source"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name ? c.name.str() : "(any name)");
    started.clear();
    PXRef<PXObject> token = c.center->addObserverForName(c.name, nullptr, nullptr, ignore);
    EXPECT_EQ(started, c.expected);
    c.center->removeObserver(token.get());
  }
  // Target/action registrations start them as well.
  started.clear();
  auto listener = PXMake<Listener>();
  PXNotificationCenter::defaultCenter()->addObserver(listener.get(), &Listener::heard,
                                                     "PXTestSourceNotification");
  EXPECT_EQ(started, (std::vector<std::string>{"first source", "second source"}));
  PXNotificationCenter::defaultCenter()->removeObserver(listener.get());
}
