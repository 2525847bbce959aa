// The network availability monitor against the real sources of network state:
// the kernel's routing table in a network namespace of the test's own (routes
// added and removed on the loopback interface), and NetworkManager as
// python-dbusmock plays it on a private system bus. The whole program runs
// under tests/net/run-in-netns; every case runs in a process of its own, so
// GIO's network monitor (one per process, made on first use) starts fresh.
#include <gtest/gtest.h>
#include <net/if.h>
#include <pxkit/foundation/PXObjectBlockObserver.h>
#include <pxkit/net/PXNetworkAvailabilityMonitor.h>
#include <pxkit/platform/PXRunLoop.h>
#include <stdlib.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "support/PXDBusMock.h"
#include "support/PXRunLoopUntil.h"

namespace {

using Monitor = PXNetworkAvailabilityMonitor;
constexpr uint32_t kReachable = kPXNetworkReachabilityFlagsReachable;
constexpr uint32_t kRequired = kPXNetworkReachabilityFlagsConnectionRequired;
constexpr uint32_t kOnTraffic = kPXNetworkReachabilityFlagsConnectionOnTraffic;
constexpr uint32_t kIntervention = kPXNetworkReachabilityFlagsInterventionRequired;
constexpr uint32_t kOnDemand = kPXNetworkReachabilityFlagsConnectionOnDemand;
constexpr uint32_t kLocal = kPXNetworkReachabilityFlagsIsLocalAddress;
constexpr uint32_t kWWAN = kPXNetworkReachabilityFlagsIsWWAN;

// ---- The rule and the mapping (pure) -----------------------------------------------

TEST(PXNetworkAvailabilityMonitor, RuleDecidesAvailabilityFromFlags) {
  struct Row {
    uint32_t flags;
    bool available;
  } rows[] = {
      {0, false},
      {kReachable, true},
      {kReachable | kRequired, false},
      {kReachable | kRequired | kOnDemand, true},
      {kReachable | kRequired | kOnDemand | kIntervention, false},
      {kReachable | kRequired | kOnTraffic, true},
      {kReachable | kRequired | kOnTraffic | kIntervention, false},
      {kReachable | kRequired | kOnDemand | kIntervention | kLocal, true},
      {kReachable | kRequired | kLocal, true},
      {kReachable | kWWAN, true},
      // Without reachable nothing else counts.
      {kLocal, false},
      {kOnDemand | kOnTraffic | kLocal, false},
      {0xffffffffu & ~kReachable, false},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(Monitor::networkAvailableForFlags(row.flags), row.available)
        << "flags 0x" << std::hex << row.flags;
  }
}

TEST(PXNetworkAvailabilityMonitor, NetworkStateMapsToFlags) {
  using C = PXNetworkConnectivity;
  struct Row {
    bool networkAvailable;
    C connectivity;
    bool metered;
    bool hostIsLocal;
    uint32_t flags;
    bool available;
  } rows[] = {
      {true, C::Full, false, false, kReachable, true},
      {true, C::Full, true, false, kReachable | kWWAN, true},
      {true, C::Limited, false, false, kReachable | kRequired, false},
      {true, C::Portal, false, false, kReachable | kRequired | kIntervention, false},
      {true, C::Local, false, false, kReachable | kRequired, false},
      {false, C::Full, false, false, 0, false},
      {false, C::Local, true, false, 0, false},
      // The machine itself needs no network.
      {false, C::Local, false, true, kReachable | kLocal, true},
      {true, C::Portal, true, true, kReachable | kLocal, true},
  };
  for (const Row& row : rows) {
    const uint32_t flags = Monitor::reachabilityFlagsForNetworkState(row.networkAvailable, row.connectivity,
                                                                     row.metered, row.hostIsLocal);
    EXPECT_EQ(flags, row.flags) << "connectivity " << int(row.connectivity);
    EXPECT_EQ(Monitor::networkAvailableForFlags(flags), row.available);
  }
}

TEST(PXNetworkAvailabilityMonitor, LocalHostNamesAreLoopbackLiteralsOrLocalhost) {
  struct Row {
    PXString name;
    bool local;
  } rows[] = {
      {"127.0.0.1", true},
      {"127.8.9.10", true},
      {"::1", true},
      {"[::1]", true},
      {"localhost", true},
      {"LocalHost.", true},
      {"10.0.0.1", false},
      {"::2", false},
      {"0.0.0.0", false},
      {"www.example.com", false},
      {"localhost.example", false},
      {"", false},
      {PXString(), false},
      {"127.0.0.1 ", false},
  };
  for (const Row& row : rows) EXPECT_EQ(Monitor::isLocalHostName(row.name), row.local) << row.name.str();
}

// ---- Helpers -------------------------------------------------------------------------

// What observers of "networkAvailable" heard, and on which threads.
struct Heard {
  std::mutex lock;
  std::vector<bool> values;
  std::vector<std::thread::id> threads;

  void observe(Monitor& monitor) {
    PXObjectBlockObserver::addObserverForKeyPath(
        monitor, "networkAvailable", PXKeyValueObservingOptionNew, nullptr,
        [this](PXObject*, const PXString&, const PXDictionary& change, PXObject*) {
          std::lock_guard guard(lock);
          values.push_back(change.objectForKey(kPXKeyValueChangeNewKey).boolValue());
          threads.push_back(std::this_thread::get_id());
        });
  }
  size_t count() {
    std::lock_guard guard(lock);
    return values.size();
  }
  std::vector<std::thread::id> threadList() {
    std::lock_guard guard(lock);
    return threads;
  }
};

// Dispatches everything that is ready on the main context, without waiting.
void drainMainContext() {
  while (g_main_context_iteration(nullptr, FALSE)) {
  }
}

// Why this process may not change routes: empty when it runs in a namespace
// of its own that holds nothing but the loopback interface.
std::string netnsUnavailableReason() {
  const char* inNamespace = getenv("PXKIT_TEST_NETNS");
  if (!inNamespace || std::string(inNamespace) != "1") {
    const char* reason = getenv("PXKIT_TEST_NETNS_UNAVAILABLE");
    return reason ? std::string("no network namespace: ") + reason
                  : "not started in a network namespace of its own (run it through tests/net/run-in-netns)";
  }
  std::string others;
  if (struct if_nameindex* list = if_nameindex()) {
    for (struct if_nameindex* i = list; i->if_index != 0; ++i) {
      if (std::string(i->if_name) != "lo") others += std::string(" ") + i->if_name;
    }
    if_freenameindex(list);
  }
  return others.empty()
             ? ""
             : "the namespace has interfaces besides lo (" + others + "); its routes stay untouched";
}

#define PX_SKIP_WITHOUT_NETNS()                                           \
  do {                                                                    \
    if (std::string reason = netnsUnavailableReason(); !reason.empty()) { \
      GTEST_SKIP() << reason;                                             \
    }                                                                     \
  } while (0)

// Runs `ip` with `args` and waits for it; the kernel has told every netlink
// listener of the change by the time it returns.
bool ip(std::vector<const char*> args, std::string* error = nullptr) {
  std::vector<const char*> argv = {nullptr};
  for (const char* candidate : {"/usr/sbin/ip", "/sbin/ip", "/usr/bin/ip", "/bin/ip"}) {
    if (g_file_test(candidate, G_FILE_TEST_IS_EXECUTABLE)) {
      argv[0] = candidate;
      break;
    }
  }
  if (!argv[0]) {
    if (error) *error = "no ip program";
    return false;
  }
  argv.insert(argv.end(), args.begin(), args.end());
  argv.push_back(nullptr);
  gchar* err = nullptr;
  gint status = 0;
  const bool ran =
      g_spawn_sync(nullptr, const_cast<gchar**>(argv.data()), nullptr, G_SPAWN_STDOUT_TO_DEV_NULL, nullptr,
                   nullptr, nullptr, &err, &status, nullptr);
  const bool ok = ran && g_spawn_check_wait_status(status, nullptr);
  if (!ok && error) *error = err ? err : "ip did not run";
  g_free(err);
  return ok;
}

class PXNetworkAvailabilityMonitorNetlink : public ::testing::Test {
 protected:
  void SetUp() override {
    PX_SKIP_WITHOUT_NETNS();
    unsetenv("GIO_USE_NETWORK_MONITOR");
    std::string error;
    ASSERT_TRUE(ip({"link", "set", "lo", "up"}, &error)) << error;
  }
  static void addDefaultRoute(const char* family = "-4") {
    std::string error;
    ASSERT_TRUE(ip({family, "route", "add", "default", "dev", "lo"}, &error)) << error;
  }
  static void deleteDefaultRoute(const char* family = "-4") {
    std::string error;
    ASSERT_TRUE(ip({family, "route", "del", "default", "dev", "lo"}, &error)) << error;
  }
};

// ---- The kernel's routing table -----------------------------------------------------------

TEST_F(PXNetworkAvailabilityMonitorNetlink, FollowsTheDefaultRoute) {
  PXRef<Monitor> monitor = PXMake<Monitor>(PXString("www.example.com"));
  EXPECT_FALSE(monitor->networkAvailable());
  EXPECT_FALSE(monitor->monitorNetworkAvailability());
  Heard heard;
  heard.observe(*monitor);

  monitor->setMonitorNetworkAvailability(true);
  EXPECT_TRUE(monitor->monitorNetworkAvailability());
  ASSERT_EQ(heard.count(), 1u) << "turning on looks at the state at once";
  EXPECT_FALSE(monitor->networkAvailable());
  EXPECT_EQ(monitor->reachabilityFlags(), 0u);

  struct Step {
    const char* what;
    std::vector<const char*> ipArgs;
    bool available;
  } steps[] = {
      {"IPv4 default route", {"-4", "route", "add", "default", "dev", "lo"}, true},
      {"IPv4 route gone", {"-4", "route", "del", "default", "dev", "lo"}, false},
      {"IPv6 default route", {"-6", "route", "add", "default", "dev", "lo"}, true},
      {"IPv6 route gone", {"-6", "route", "del", "default", "dev", "lo"}, false},
  };
  for (const Step& step : steps) {
    const size_t before = heard.count();
    std::string error;
    ASSERT_TRUE(ip(step.ipArgs, &error)) << step.what << ": " << error;
    ASSERT_TRUE(PXRunLoopUntil([&] {
      return heard.count() > before && monitor->networkAvailable() == step.available;
    })) << step.what;
    EXPECT_EQ(monitor->reachabilityFlags(), step.available ? kReachable : 0u) << step.what;
  }
  for (std::thread::id thread : heard.threadList()) EXPECT_EQ(thread, std::this_thread::get_id());
}

TEST_F(PXNetworkAvailabilityMonitorNetlink, StartsAvailableWhenTheRouteIsAlreadyThere) {
  addDefaultRoute();
  PXRef<Monitor> monitor = PXMake<Monitor>(PXString("www.example.com"));
  monitor->setMonitorNetworkAvailability(true);
  EXPECT_TRUE(monitor->networkAvailable());
  EXPECT_EQ(monitor->reachabilityFlags(), kReachable);
}

TEST_F(PXNetworkAvailabilityMonitorNetlink, LoopbackHostIsAvailableWithoutAnyRoute) {
  PXRef<Monitor> monitor = PXMake<Monitor>(PXString("127.0.0.1"));
  monitor->setMonitorNetworkAvailability(true);
  EXPECT_TRUE(monitor->networkAvailable());
  EXPECT_EQ(monitor->reachabilityFlags(), kReachable | kLocal);
  // A new host name applies from the next look.
  monitor->setHostName("www.example.com");
  addDefaultRoute();
  deleteDefaultRoute();
  ASSERT_TRUE(PXRunLoopUntil([&] { return !monitor->networkAvailable(); }));
  EXPECT_EQ(monitor->reachabilityFlags(), 0u);
}

TEST_F(PXNetworkAvailabilityMonitorNetlink, SwitchingOnFromAnotherThreadWaitsForTheMainRunLoop) {
  addDefaultRoute();
  PXRef<Monitor> monitor = PXMake<Monitor>(PXString("www.example.com"));
  Heard heard;
  std::atomic<bool> done{false};
  bool availableOnReturn = false;
  bool monitoringOnReturn = false;
  std::thread caller([&] {
    heard.observe(*monitor);  // observers may register on any thread
    monitor->setMonitorNetworkAvailability(true);
    availableOnReturn = monitor->networkAvailable();
    monitoringOnReturn = monitor->monitorNetworkAvailability();
    PXRunLoop::main()->performBlock([&] { done = true; });  // wakes the waiting main loop
  });
  ASSERT_TRUE(PXRunLoopUntil([&] { return done.load(); }));
  caller.join();
  EXPECT_TRUE(availableOnReturn) << "the first verdict is there before the switch returns";
  EXPECT_TRUE(monitoringOnReturn);
  ASSERT_EQ(heard.count(), 1u);
  EXPECT_EQ(heard.threadList()[0], std::this_thread::get_id()) << "observers are told on the main thread";

  // Later verdicts come on the main thread too.
  deleteDefaultRoute();
  ASSERT_TRUE(PXRunLoopUntil([&] { return !monitor->networkAvailable(); }));
  for (std::thread::id thread : heard.threadList()) EXPECT_EQ(thread, std::this_thread::get_id());
}

TEST_F(PXNetworkAvailabilityMonitorNetlink, SharedMonitorIsMadeOnceAndOnForEveryCaller) {
  addDefaultRoute();
  constexpr int kThreads = 6;
  std::vector<Monitor*> seen(kThreads, nullptr);
  std::vector<char> onWhenSeen(kThreads, 0);
  std::atomic<int> finished{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&, i] {
      seen[i] = Monitor::sharedMonitor();
      onWhenSeen[i] = seen[i]->monitorNetworkAvailability() && seen[i]->networkAvailable();
      PXRunLoop::main()->performBlock([&] { ++finished; });  // wakes the waiting main loop
    });
  }
  // The main thread asks too, while the others may be waiting for it.
  Monitor* mine = Monitor::sharedMonitor();
  ASSERT_TRUE(PXRunLoopUntil([&] { return finished.load() == kThreads; }));
  for (std::thread& t : threads) t.join();
  ASSERT_NE(mine, nullptr);
  for (int i = 0; i < kThreads; ++i) {
    EXPECT_EQ(seen[i], mine);
    EXPECT_TRUE(onWhenSeen[i]) << "caller " << i << " got the monitor before it was switched on";
  }
  EXPECT_EQ(mine->hostName().str(), kPXNetworkAvailabilityMonitorDefaultHostName);
  EXPECT_TRUE(mine->networkAvailable());
}

TEST_F(PXNetworkAvailabilityMonitorNetlink, SubscribesOnceHoweverOftenTurnedOn) {
  // Three monitors see the same changes: one turned on once, one twice, one
  // on, off and on again. Each must hear every change as often as the first.
  PXRef<Monitor> once = PXMake<Monitor>(PXString("www.example.com"));
  PXRef<Monitor> twice = PXMake<Monitor>(PXString("www.example.com"));
  PXRef<Monitor> again = PXMake<Monitor>(PXString("www.example.com"));
  Heard heardOnce, heardTwice, heardAgain;
  heardOnce.observe(*once);
  heardTwice.observe(*twice);
  heardAgain.observe(*again);

  once->setMonitorNetworkAvailability(true);
  twice->setMonitorNetworkAvailability(true);
  twice->setMonitorNetworkAvailability(true);
  EXPECT_EQ(heardTwice.count(), 1u) << "a second 'on' is no switch and looks at nothing";
  again->setMonitorNetworkAvailability(true);
  again->setMonitorNetworkAvailability(false);
  EXPECT_FALSE(again->monitorNetworkAvailability());
  again->setMonitorNetworkAvailability(true);
  EXPECT_EQ(heardAgain.count(), 2u) << "turning on again reports at once";

  const size_t baseOnce = heardOnce.count(), baseTwice = heardTwice.count(), baseAgain = heardAgain.count();
  addDefaultRoute();
  drainMainContext();
  deleteDefaultRoute();
  drainMainContext();
  const size_t changes = heardOnce.count() - baseOnce;
  EXPECT_GE(changes, 2u);
  EXPECT_EQ(heardTwice.count() - baseTwice, changes);
  EXPECT_EQ(heardAgain.count() - baseAgain, changes);
}

TEST_F(PXNetworkAvailabilityMonitorNetlink, TurnedOffKeepsItsVerdictAndHearsNothing) {
  addDefaultRoute();
  PXRef<Monitor> monitor = PXMake<Monitor>(PXString("www.example.com"));
  monitor->setMonitorNetworkAvailability(true);
  ASSERT_TRUE(monitor->networkAvailable());
  monitor->setMonitorNetworkAvailability(false);
  Heard heard;
  heard.observe(*monitor);
  deleteDefaultRoute();
  drainMainContext();
  EXPECT_EQ(heard.count(), 0u);
  EXPECT_TRUE(monitor->networkAvailable());
}

TEST_F(PXNetworkAvailabilityMonitorNetlink, DroppedOnAnotherThreadWhileWatching) {
  // The last reference goes on a thread the main thread waits for: the
  // monitor must neither wait for the main run loop nor be reached afterwards
  // by a change that was already under way.
  PXRef<Monitor> monitor = PXMake<Monitor>(PXString("www.example.com"));
  PXWeakRef<Monitor> weak = monitor;
  monitor->setMonitorNetworkAvailability(true);
  addDefaultRoute();  // its signals wait on the main context
  std::thread dropper([m = std::move(monitor)]() mutable { m = nullptr; });
  dropper.join();
  EXPECT_FALSE(weak.lock());
  drainMainContext();
  deleteDefaultRoute();
  drainMainContext();
}

// ---- Properties ---------------------------------------------------------------------------

TEST(PXNetworkAvailabilityMonitor, EverySetNotifiesAlsoWithoutChange) {
  PXRef<Monitor> monitor = PXMake<Monitor>(PXString("www.example.com"));
  Heard heard;
  heard.observe(*monitor);
  monitor->setNetworkAvailable(false);
  monitor->setNetworkAvailable(true);
  monitor->setNetworkAvailable(true);
  EXPECT_EQ(heard.values, (std::vector<bool>{false, true, true}));
  // The same through key-value coding.
  monitor->setValueForKey(PXValue(false), "networkAvailable");
  EXPECT_EQ(heard.count(), 4u);
  EXPECT_FALSE(monitor->valueForKey("networkAvailable").boolValue());
  EXPECT_EQ(monitor->valueForKey("hostName").description().str(), "www.example.com");
  EXPECT_FALSE(monitor->valueForKey("monitorNetworkAvailability").boolValue());
}

// ---- NetworkManager --------------------------------------------------------------------------

constexpr const char* kNM = "org.freedesktop.NetworkManager";
constexpr const char* kNMPath = "/org/freedesktop/NetworkManager";
constexpr const char* kMock = "org.freedesktop.DBus.Mock";
// NetworkManager's global states and connectivity levels.
constexpr uint32_t kNMStateDisconnected = 20, kNMStateConnectedSite = 60, kNMStateConnectedGlobal = 70;
constexpr uint32_t kNMConnectivityPortal = 2, kNMConnectivityLimited = 3, kNMConnectivityFull = 4;

class PXNetworkAvailabilityMonitorNetworkManager : public ::testing::Test {
 protected:
  void SetUp() override {
    PX_SKIP_WITHOUT_DBUS_MOCK();
    // Before GIO's network monitor is first made in this process.
    setenv("GIO_USE_NETWORK_MONITOR", "networkmanager", 1);
    bus_ = std::make_unique<PXDBusMock>();
    ASSERT_TRUE(bus_->isUp());
    std::string error;
    ASSERT_TRUE(bus_->startTemplate("networkmanager", kNM, {}, &error)) << error;
  }
  void TearDown() override { unsetenv("GIO_USE_NETWORK_MONITOR"); }

  void mockCall(const char* method, uint32_t value) {
    std::string error;
    ASSERT_TRUE(bus_->call(kNM, kNMPath, kMock, method, g_variant_new("(u)", value), &error)) << error;
  }

  std::unique_ptr<PXDBusMock> bus_;
};

TEST_F(PXNetworkAvailabilityMonitorNetworkManager, FollowsStateAndConnectivity) {
  PXRef<Monitor> monitor = PXMake<Monitor>(PXString("www.example.com"));
  Heard heard;
  heard.observe(*monitor);
  monitor->setMonitorNetworkAvailability(true);
  EXPECT_TRUE(monitor->networkAvailable()) << "the mock starts connected, with full connectivity";
  EXPECT_EQ(monitor->reachabilityFlags(), kReachable);

  struct Step {
    const char* method;
    uint32_t value;
    uint32_t flags;
    bool available;
  } steps[] = {
      {"SetGlobalConnectionState", kNMStateDisconnected, 0, false},
      {"SetGlobalConnectionState", kNMStateConnectedSite, kReachable | kRequired, false},
      {"SetConnectivity", kNMConnectivityPortal, kReachable | kRequired | kIntervention, false},
      {"SetGlobalConnectionState", kNMStateConnectedGlobal, kReachable | kRequired | kIntervention, false},
      {"SetConnectivity", kNMConnectivityFull, kReachable, true},
      {"SetConnectivity", kNMConnectivityLimited, kReachable | kRequired, false},
      {"SetConnectivity", kNMConnectivityFull, kReachable, true},
  };
  for (const Step& step : steps) {
    const size_t before = heard.count();
    mockCall(step.method, step.value);
    if (step.method == std::string("SetGlobalConnectionState") && step.value == kNMStateConnectedGlobal) {
      // No property GIO reports changes here: nothing to wait for.
      continue;
    }
    ASSERT_TRUE(PXRunLoopUntil([&] {
      return heard.count() > before && monitor->reachabilityFlags() == step.flags;
    })) << step.method
        << " " << step.value << ": flags 0x" << std::hex << monitor->reachabilityFlags();
    EXPECT_EQ(monitor->networkAvailable(), step.available) << step.method << " " << step.value;
  }
  for (std::thread::id thread : heard.threadList()) EXPECT_EQ(thread, std::this_thread::get_id());
}

TEST_F(PXNetworkAvailabilityMonitorNetworkManager, LooksOnceAfterEachBurstOfSignals) {
  // Going offline changes two properties at once (available, connectivity),
  // announced one after the other; observers hear one verdict, the final one.
  PXRef<Monitor> monitor = PXMake<Monitor>(PXString("www.example.com"));
  monitor->setMonitorNetworkAvailability(true);
  Heard heard;
  heard.observe(*monitor);
  mockCall("SetGlobalConnectionState", kNMStateDisconnected);
  ASSERT_TRUE(PXRunLoopUntil([&] { return heard.count() > 0; }));
  drainMainContext();
  EXPECT_EQ(heard.values, std::vector<bool>{false});
  EXPECT_EQ(monitor->reachabilityFlags(), 0u);
}

}  // namespace
