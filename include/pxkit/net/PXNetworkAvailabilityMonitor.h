// PXKit — PXNetworkAvailabilityMonitor: whether the network is usable.
//
// The monitor keeps one boolean, "networkAvailable", that others observe by
// key-value observing. It follows the system's network state (GIO's network
// monitor: the kernel's routing table, or NetworkManager where it runs),
// translates that state into reachability flags and decides availability from
// the flags with one rule (networkAvailableForFlags). One shared instance
// serves the whole kit; the metrics tracker observes it.
//
//   PXNetworkAvailabilityMonitor* monitor = PXNetworkAvailabilityMonitor::sharedMonitor();
//   bool online = monitor->networkAvailable();
//   auto token = PXObjectBlockObserver::addObserverForKeyPath(
//       *monitor, "networkAvailable", PXKeyValueObservingOptionNew, /*owner=*/nullptr,
//       [](PXObject*, const PXString&, const PXDictionary& change, PXObject*) {
//         printf("available: %d\n", change.objectForKey(kPXKeyValueChangeNewKey).boolValue());
//       });
//
// Where the state comes from on Linux (docs/linux-sources.md has the details):
//  - the kernel's routing table (netlink): the network is there when a default
//    route is, for IPv4 or IPv6;
//  - NetworkManager, when it runs (or GIO_USE_NETWORK_MONITOR=networkmanager):
//    its global state and connectivity check (limited, captive portal, full);
//  - the monitor listens to "network-changed" and to the changes of
//    "network-available", "connectivity" and "network-metered": with
//    NetworkManager only the latter three are announced. The signals of one
//    change come in bursts; the monitor looks at the state once after each
//    burst, on the main run loop.
// The host name is never resolved (no DNS query, no packet): it only tells
// whether the watched host is this machine (a loopback address), which is
// always reachable.
//
// Thread safety: every operation may be called from any thread. The watching
// itself runs on the main run loop (PXRunLoop::main(), GLib's default main
// context): switching it from another thread waits until the main run loop has
// carried the switch out, so it must not be called while the main thread waits
// for the caller. Observers of "networkAvailable" are told on the main thread
// for the monitor's own verdicts (and on the calling thread for a direct
// setNetworkAvailable).
#pragma once

#include <pxkit/export.h>
#include <pxkit/objects/PXObject.h>
#include <pxkit/objects/PXString.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>

// Reachability flags (bit set), with the bits and meanings of the platform
// family the kit's rule was written for. The monitor derives them from the
// system's network state (reachabilityFlagsForNetworkState).
enum PXNetworkReachabilityFlags : uint32_t {
  kPXNetworkReachabilityFlagsReachable = 1u << 1,             // a route to the host exists
  kPXNetworkReachabilityFlagsConnectionRequired = 1u << 2,    // ... but a connection must be made first
  kPXNetworkReachabilityFlagsConnectionOnTraffic = 1u << 3,   // ... which traffic would make
  kPXNetworkReachabilityFlagsInterventionRequired = 1u << 4,  // ... which needs the user (a login page)
  kPXNetworkReachabilityFlagsConnectionOnDemand = 1u << 5,    // ... which the system makes on demand
  kPXNetworkReachabilityFlagsIsLocalAddress = 1u << 16,       // the host is this machine
  kPXNetworkReachabilityFlagsIsWWAN = 1u << 18,               // the way out is metered
};

// How far the system believes the network reaches (GIO's connectivity levels).
enum class PXNetworkConnectivity : uint8_t {
  Local = 1,    // no route beyond this machine
  Limited = 2,  // a network, but the internet was not reached
  Portal = 3,   // behind a captive portal that wants a login
  Full = 4,     // the internet is reachable
};

// The host name the shared monitor watches.
PXKIT_EXPORT extern const char* const kPXNetworkAvailabilityMonitorDefaultHostName;  // "www.example.com"

class PXKIT_EXPORT PXNetworkAvailabilityMonitor : public PXObject {
  PX_DECLARE_CLASS(PXNetworkAvailabilityMonitor)

 public:
  // ---- Instances -------------------------------------------------------------
  // The shared monitor, made once (thread-safe) on first call, for
  // kPXNetworkAvailabilityMonitorDefaultHostName, and switched on (which waits
  // for the main run loop when called from another thread). Never released;
  // never null.
  static PXNetworkAvailabilityMonitor* sharedMonitor();

  // initWithHostname: a monitor for `hostName` with watching off and
  // networkAvailable NO. Make it with PXMake<PXNetworkAvailabilityMonitor>(name).
  explicit PXNetworkAvailabilityMonitor(PXString hostName);
  // Stops watching and drops the host name. Runs on whatever thread drops the
  // last reference and never waits for the main run loop: the system's signals
  // are disconnected from here, and a verdict already under way on the main
  // thread finds the monitor gone and does nothing.
  ~PXNetworkAvailabilityMonitor() override;

  // ---- Properties --------------------------------------------------------------
  // The watched host (atomic). A new name applies from the next look at the
  // network state.
  PXString hostName() const;
  void setHostName(PXString hostName);

  // Whether watching is on. Switching runs on the main run loop; from another
  // thread the call waits until it is done. Turning on makes one subscription
  // (a second "on" changes nothing), looks at the network state at once and
  // sets networkAvailable before returning. Turning off ends the subscription
  // and keeps the last verdict. Observers of "monitorNetworkAvailability" hear
  // of every switch that changes it.
  bool monitorNetworkAvailability() const noexcept { return monitoring_.load(std::memory_order_acquire); }
  void setMonitorNetworkAvailability(bool monitor);

  // The current verdict; NO until the first look at the network state.
  bool networkAvailable() const noexcept { return available_.load(std::memory_order_acquire); }
  // Stores a verdict. Every call notifies observers of "networkAvailable", also
  // when the value does not change, on the calling thread.
  void setNetworkAvailable(bool available);

  // The reachability flags of the last look at the network state (0 before the
  // first one).
  uint32_t reachabilityFlags() const noexcept { return flags_.load(std::memory_order_acquire); }

  // ---- The rule ------------------------------------------------------------------
  // Available exactly when reachable is set and at least one of these holds:
  // connection required is not set; connection on traffic or on demand is set
  // and intervention required is not; the host is a local address.
  static bool networkAvailableForFlags(uint32_t flags) noexcept;

  // The flags for a network state: reachable when the system reports a network
  // (or the host is local); connection required below full connectivity;
  // intervention required behind a captive portal; WWAN when metered; local
  // address (and reachable) when `hostIsLocal`.
  static uint32_t reachabilityFlagsForNetworkState(bool networkAvailable, PXNetworkConnectivity connectivity,
                                                   bool networkMetered, bool hostIsLocal) noexcept;

  // Whether `hostName` names this machine: a loopback address literal
  // (127.0.0.0/8, ::1) or "localhost". No name is resolved.
  static bool isLocalHostName(const PXString& hostName);

  // The reachability callback: stores the flags and the verdict they give.
  void _reachabilityChanged(uint32_t flags);

 private:
  struct Watch;  // the subscription to the system's network state (main thread)

  void switchOnMainThread(bool monitor);

  mutable std::mutex hostNameLock_;
  PXString hostName_;
  std::atomic<bool> monitoring_{false};
  std::atomic<bool> available_{false};
  std::atomic<uint32_t> flags_{0};
  std::shared_ptr<Watch> watch_;  // main thread, and the destructor
};
