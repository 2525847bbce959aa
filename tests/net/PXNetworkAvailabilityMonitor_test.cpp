// The network availability monitor against the kernel's routing table in a
// network namespace of the test's own (default routes on lo). Each case runs in
// a process of its own, so GIO's network monitor (one per process) starts fresh.
#include <glib.h>
#include <gtest/gtest.h>
#include <pxkit/foundation/PXObjectBlockObserver.h>
#include <pxkit/net/PXNetworkAvailabilityMonitor.h>
#include <pxkit/platform/PXRunLoop.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "support/PXNetworkNamespace.h"
#include "support/PXRunLoopUntil.h"

namespace {

using Monitor = PXNetworkAvailabilityMonitor;
constexpr uint32_t kReachable = kPXNetworkReachabilityFlagsReachable;
constexpr uint32_t kRequired = kPXNetworkReachabilityFlagsConnectionRequired;
constexpr uint32_t kIntervention = kPXNetworkReachabilityFlagsInterventionRequired;
constexpr uint32_t kOnDemand = kPXNetworkReachabilityFlagsConnectionOnDemand;
constexpr uint32_t kLocal = kPXNetworkReachabilityFlagsIsLocalAddress;

TEST(PXNetworkAvailabilityMonitor, RuleDecidesFromFlags) {
  // Without reachable nothing counts.
  const std::pair<uint32_t, bool> rows[] = {
      {0xffffffffu & ~kReachable, false},
      {kReachable, true},
      {kReachable | kRequired, false},
      {kReachable | kRequired | kOnDemand, true},
      {kReachable | kRequired | kOnDemand | kIntervention, false},
      {kReachable | kRequired | kOnDemand | kIntervention | kLocal, true}};
  for (auto [flags, available] : rows)
    EXPECT_EQ(Monitor::networkAvailableForFlags(flags), available) << flags;
}

TEST(PXNetworkAvailabilityMonitor, NetworkStateMapsToFlags) {
  using C = PXNetworkConnectivity;
  struct Row {
    bool available;
    C connectivity;
    bool metered, local;
    uint32_t flags;
  } rows[] = {
      {true, C::Full, true, false, kReachable | kPXNetworkReachabilityFlagsIsWWAN},
      {true, C::Portal, false, false, kReachable | kRequired | kIntervention},
      {true, C::Local, false, false, kReachable | kRequired},
      {true, C::Limited, false, false, kReachable | kRequired},
      {true, static_cast<C>(9), false, false, kReachable | kRequired},  // a level this kit does not know
      {false, C::Full, true, false, 0},
      {false, C::Local, false, true, kReachable | kLocal},  // the machine itself needs no network
  };
  for (const Row& r : rows)
    EXPECT_EQ(Monitor::reachabilityFlagsForNetworkState(r.available, r.connectivity, r.metered, r.local),
              r.flags);
  for (const char* local : {"127.8.9.10", "::1", "[::1]", "LocalHost."})
    EXPECT_TRUE(Monitor::isLocalHostName(local));
  for (const char* remote : {"::2", "localhost.example", "", "[]"})
    EXPECT_FALSE(Monitor::isLocalHostName(remote)) << remote;
  EXPECT_FALSE(Monitor::isLocalHostName(PXString()));
}

// On which threads observers of "networkAvailable" heard a change.
struct Heard {
  std::mutex lock;
  std::vector<std::thread::id> threads;

  explicit Heard(Monitor& monitor) {
    PXObjectBlockObserver::addObserverForKeyPath(monitor, "networkAvailable", PXKeyValueObservingOptionNew,
                                                 nullptr,
                                                 [this](PXObject*, const PXString&, auto&, PXObject*) {
                                                   std::lock_guard guard(lock);
                                                   threads.push_back(std::this_thread::get_id());
                                                 });
  }
  size_t count() {
    std::lock_guard guard(lock);
    return threads.size();
  }
};

PXRef<Monitor> makeMonitor(const char* host = "www.example.com") {
  return PXMake<Monitor>(PXString(host));
}

// Dispatches what is ready on the main context: every change `ip` made is.
void drain() {
  while (g_main_context_iteration(nullptr, FALSE)) {
  }
}

void defaultRoute(const char* verb, const char* family = "-4") {
  std::string error;
  ASSERT_TRUE(PXRunIp({family, "route", verb, "default", "dev", "lo"}, &error)) << verb << ": " << error;
}

class PXNetworkAvailabilityMonitorNetlink : public ::testing::Test {
 protected:
  void SetUp() override {
    PX_SKIP_WITHOUT_NETWORK_NAMESPACE();
    unsetenv("GIO_USE_NETWORK_MONITOR");
  }
};

TEST_F(PXNetworkAvailabilityMonitorNetlink, FollowsTheDefaultRoute) {
  PXRef<Monitor> monitor = makeMonitor();
  Heard heard(*monitor);
  monitor->setMonitorNetworkAvailability(true);
  monitor->setMonitorNetworkAvailability(true);
  ASSERT_EQ(heard.count(), 1u) << "turning on looks at once, and a second 'on' is no switch";
  EXPECT_FALSE(monitor->networkAvailable());

  const std::pair<const char*, const char*> steps[] = {
      {"add", "-4"}, {"del", "-4"}, {"add", "-6"}, {"del", "-6"}};
  for (auto [verb, family] : steps) {
    const size_t before = heard.count();
    const bool expected = verb == std::string("add");
    defaultRoute(verb, family);
    ASSERT_TRUE(PXRunLoopUntil([&] {
      return heard.count() > before && monitor->networkAvailable() == expected;
    })) << verb
        << " " << family;
    EXPECT_EQ(monitor->reachabilityFlags(), expected ? kReachable : 0u);
  }
  EXPECT_EQ(std::count(heard.threads.begin(), heard.threads.end(), std::this_thread::get_id()),
            std::ssize(heard.threads));
  // Turned off, it hears nothing and keeps its verdict.
  monitor->setMonitorNetworkAvailability(false);
  const size_t before = heard.count();
  defaultRoute("add");
  drain();
  EXPECT_EQ(heard.count(), before);
  EXPECT_FALSE(monitor->networkAvailable());

  // A loopback host is there without any route; a new name counts from the next look.
  PXRef<Monitor> loopback = makeMonitor("127.0.0.1");
  loopback->setMonitorNetworkAvailability(true);
  EXPECT_EQ(loopback->reachabilityFlags(), kReachable | kLocal);
  loopback->setHostName("www.example.com");
  defaultRoute("del");
  drain();
  EXPECT_FALSE(loopback->networkAvailable());
}

TEST_F(PXNetworkAvailabilityMonitorNetlink, SharedMonitorIsMadeOnceAndOnForEveryCaller) {
  defaultRoute("add");
  constexpr int kThreads = 6;
  std::vector<Monitor*> seen(kThreads);
  std::vector<char> onWhenSeen(kThreads);
  int finished = 0;
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&, i] {
      seen[i] = Monitor::sharedMonitor();
      onWhenSeen[i] = seen[i]->monitorNetworkAvailability() && seen[i]->networkAvailable();
      PXRunLoop::main()->performBlock([&] { ++finished; });
    });
  }
  Monitor* mine = Monitor::sharedMonitor();  // while the others may wait for the main thread
  ASSERT_TRUE(PXRunLoopUntil([&] { return finished == kThreads; }));
  for (std::thread& t : threads) t.join();
  for (int i = 0; i < kThreads; ++i) {
    EXPECT_EQ(seen[i], mine);
    EXPECT_TRUE(onWhenSeen[i]) << "caller " << i << " had the monitor before it was on";
  }
  EXPECT_EQ(mine->hostName().str(), kPXNetworkAvailabilityMonitorDefaultHostName);
}

TEST_F(PXNetworkAvailabilityMonitorNetlink, DroppedOnAnotherThreadWhileAChangeWaits) {
  // Dropping must not wait for the main loop, and the waiting change must not
  // reach the dead monitor (ASan would see it).
  PXRef<Monitor> monitor = makeMonitor();
  PXWeakRef<Monitor> weak = monitor;
  monitor->setMonitorNetworkAvailability(true);
  defaultRoute("add");
  std::thread([m = std::move(monitor)]() mutable { m = nullptr; }).join();
  EXPECT_FALSE(weak.lock());
  drain();
}

}  // namespace
