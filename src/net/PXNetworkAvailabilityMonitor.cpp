// The network availability monitor on GIO's network monitor.
//
// One subscription (Watch) per monitor that is switched on: four signal
// handlers on the process's GNetworkMonitor and at most one pending look at
// the state, an idle source on the main context. The handlers and the idle
// source each hold a reference to the Watch, never to the monitor: the Watch
// reaches its monitor through a weak reference, so a monitor may be destroyed
// on any thread while a signal is being delivered on the main thread.
#include <pxkit/net/PXNetworkAvailabilityMonitor.h>
#include <pxkit/objects/PXRef.h>
#include <pxkit/platform/PXDispatchQueue.h>
#include <pxkit/platform/PXRunLoop.h>

#include <array>
#include <optional>
#include <string_view>
#include <utility>

#include "platform/internal/GLibHandles.h"
#include "platform/internal/RunOnContext.h"

const char* const kPXNetworkAvailabilityMonitorDefaultHostName = "www.example.com";

PX_DEFINE_CLASS(PXNetworkAvailabilityMonitor, PXObject, [](PXClassBuilder<PXNetworkAvailabilityMonitor>& c) {
  c.computed("hostName", &PXNetworkAvailabilityMonitor::hostName, &PXNetworkAvailabilityMonitor::setHostName,
             PXPropertyOwnership::Retain, "@\"NSString\"");
  c.computed("monitorNetworkAvailability", &PXNetworkAvailabilityMonitor::monitorNetworkAvailability,
             &PXNetworkAvailabilityMonitor::setMonitorNetworkAvailability);
  c.computed("networkAvailable", &PXNetworkAvailabilityMonitor::networkAvailable,
             &PXNetworkAvailabilityMonitor::setNetworkAvailable);
})

namespace {

// The signals that announce a change of the network state. With the
// NetworkManager backend "network-changed" is not emitted for the manager's
// own state changes; only the property notifications are.
// The first takes a boolean, the others a GParamSpec*.
constexpr std::array<const char*, 4> kNetworkSignals = {
    "network-changed",
    "notify::network-available",
    "notify::connectivity",
    "notify::network-metered",
};

}  // namespace

// ---- The subscription ------------------------------------------------------------

struct PXNetworkAvailabilityMonitor::Watch : std::enable_shared_from_this<Watch> {
  explicit Watch(PXNetworkAvailabilityMonitor* owner, GNetworkMonitor* system)
      : owner_(owner), system_(pxkit::glib::ref(system)) {}
  ~Watch() { stop(); }
  Watch(const Watch&) = delete;
  Watch& operator=(const Watch&) = delete;

  // Connects the handlers. Each holds a reference to this Watch until it is disconnected.
  void start() {
    for (size_t i = 0; i < kNetworkSignals.size(); ++i) {
      GCallback handler = i == 0 ? G_CALLBACK(&Watch::onNetworkChanged) : G_CALLBACK(&Watch::onNotify);
      handlers_[i] = g_signal_connect_data(system_.get(), kNetworkSignals[i], handler,
                                           new std::shared_ptr<Watch>(shared_from_this()),
                                           &Watch::dropClosureReference, GConnectFlags{});
    }
  }

  // Disconnects the handlers and drops a pending look. Any thread; safe to
  // repeat. A handler running on another thread at this moment finishes with
  // its own reference to the Watch.
  void stop() {
    for (gulong& id : handlers_) {
      if (id != 0) g_signal_handler_disconnect(system_.get(), std::exchange(id, 0));
    }
    pxkit::glib::AttachedSource pending;
    std::lock_guard guard(lock_);
    pending = std::move(pending_);  // destroyed after the lock is dropped
    stopped_ = true;
  }

  // Looks at the state now and hands the flags to the monitor. Main thread.
  void look() {
    PXRef<PXNetworkAvailabilityMonitor> owner = owner_.lock();
    if (!owner) return;
    GNetworkMonitor* system = system_.get();
    const auto connectivity = static_cast<PXNetworkConnectivity>(g_network_monitor_get_connectivity(system));
    const uint32_t flags = PXNetworkAvailabilityMonitor::reachabilityFlagsForNetworkState(
        g_network_monitor_get_network_available(system) != FALSE, connectivity,
        g_network_monitor_get_network_metered(system) != FALSE, isLocalHostName(owner->hostName()));
    owner->_reachabilityChanged(flags);
  }

 private:
  // One look per burst of signals: the first signal schedules it on the main
  // context at idle priority, after the rest of the burst (NetworkManager's
  // properties arrive one notification at a time, and a look between two of
  // them would see half of the change).
  void scheduleLook() {
    std::lock_guard guard(lock_);
    if (stopped_ || pending_) return;
    pending_.reset(g_idle_source_new());
    g_source_set_priority(pending_.get(), G_PRIORITY_DEFAULT_IDLE);
    g_source_set_static_name(pending_.get(), "PXNetworkAvailabilityMonitor look");
    g_source_set_callback(pending_.get(), &Watch::onIdle, new std::shared_ptr<Watch>(shared_from_this()),
                          &Watch::dropSourceReference);
    g_source_attach(pending_.get(), g_main_context_default());
  }

  static void onNetworkChanged(GNetworkMonitor*, gboolean, gpointer data) {
    (*static_cast<std::shared_ptr<Watch>*>(data))->scheduleLook();
  }
  static void onNotify(GObject*, GParamSpec*, gpointer data) {
    (*static_cast<std::shared_ptr<Watch>*>(data))->scheduleLook();
  }

  static gboolean onIdle(gpointer data) {
    const std::shared_ptr<Watch> watch = *static_cast<std::shared_ptr<Watch>*>(data);
    {
      // Forget the source first: a signal during the look schedules a new one.
      pxkit::glib::AttachedSource done;
      std::lock_guard guard(watch->lock_);
      if (watch->stopped_) return G_SOURCE_REMOVE;
      done = std::move(watch->pending_);
      // Destroying the running source is allowed: GLib keeps its callback
      // data until the dispatch has returned.
    }
    watch->look();
    return G_SOURCE_REMOVE;
  }

  static void dropClosureReference(gpointer data, GClosure*) {
    delete static_cast<std::shared_ptr<Watch>*>(data);
  }
  static void dropSourceReference(gpointer data) { delete static_cast<std::shared_ptr<Watch>*>(data); }

  PXWeakRef<PXNetworkAvailabilityMonitor> owner_;
  pxkit::glib::Object<GNetworkMonitor> system_;
  std::array<gulong, kNetworkSignals.size()> handlers_{};
  std::mutex lock_;
  pxkit::glib::AttachedSource pending_;  // guarded by lock_
  bool stopped_ = false;                 // guarded by lock_
};

// ---- Instances ---------------------------------------------------------------------

PXNetworkAvailabilityMonitor* PXNetworkAvailabilityMonitor::sharedMonitor() {
  static PXDispatchOnceToken once;
  static PXNetworkAvailabilityMonitor* shared = nullptr;
  static std::atomic<bool> switchedOn{false};
  // Made under the run-once guard, switched on outside it: a caller on another
  // thread waits for the main run loop to switch the monitor on, and the main
  // thread must not be stuck in the guard behind that caller meanwhile.
  PXDispatchOnce(once, [] {
    shared = PXMake<PXNetworkAvailabilityMonitor>(PXString(kPXNetworkAvailabilityMonitorDefaultHostName))
                 .detach();  // never released
  });
  if (!switchedOn.load(std::memory_order_acquire)) {
    // Switched on once, on the main context; every caller returns only after that.
    pxkit::internal::runOnContext(
        nullptr,
        [] {
          if (switchedOn.load(std::memory_order_relaxed)) return;
          shared->setMonitorNetworkAvailability(true);
          switchedOn.store(true, std::memory_order_release);
        },
        pxkit::internal::RunOnContextMode::Wait);
  }
  return shared;
}

PXNetworkAvailabilityMonitor::PXNetworkAvailabilityMonitor(PXString hostName)
    : hostName_(std::move(hostName)) {}

PXNetworkAvailabilityMonitor::~PXNetworkAvailabilityMonitor() {
  // Not through the main run loop: a monitor may be dropped on any thread,
  // also while the main thread waits for that thread.
  if (watch_) watch_->stop();
  watch_.reset();
  monitoring_.store(false, std::memory_order_release);
  PXString dropped;
  std::lock_guard guard(hostNameLock_);
  dropped = std::exchange(hostName_, PXString());
}

// ---- Properties ------------------------------------------------------------------

PXString PXNetworkAvailabilityMonitor::hostName() const {
  return getAtomic(hostNameLock_, hostName_);
}

void PXNetworkAvailabilityMonitor::setHostName(PXString hostName) {
  setObservable(hostNameLock_, hostName_, std::move(hostName), "hostName");
}

void PXNetworkAvailabilityMonitor::setMonitorNetworkAvailability(bool monitor) {
  // Runs at once on the main thread (or on any thread while nobody iterates the
  // main context); otherwise it is handed to the main run loop and the caller waits.
  pxkit::internal::runOnContext(
      nullptr, [this, monitor] { switchOnMainThread(monitor); }, pxkit::internal::RunOnContextMode::Wait);
}

void PXNetworkAvailabilityMonitor::switchOnMainThread(bool monitor) {
  if (monitor == monitoring_.load(std::memory_order_acquire)) return;
  if (watch_) {
    watch_->stop();
    watch_.reset();
  }
  std::shared_ptr<Watch> started;
  if (monitor) {
    // GIO's monitor is made once per process and delivers its signals to the
    // thread-default context of its making: runOnContext has pushed the main one.
    GNetworkMonitor* system = g_network_monitor_get_default();  // borrowed; never null
    started = std::make_shared<Watch>(this, system);
    started->start();
    watch_ = started;
  }
  willChangeValueForKey("monitorNetworkAvailability");
  monitoring_.store(monitor, std::memory_order_release);
  didChangeValueForKey("monitorNetworkAvailability");
  // The first verdict before the switch returns.
  if (started) started->look();
}

void PXNetworkAvailabilityMonitor::setNetworkAvailable(bool available) {
  willChangeValueForKey("networkAvailable");
  available_.store(available, std::memory_order_release);
  didChangeValueForKey("networkAvailable");
}

void PXNetworkAvailabilityMonitor::_reachabilityChanged(uint32_t flags) {
  flags_.store(flags, std::memory_order_release);
  setNetworkAvailable(networkAvailableForFlags(flags));
}

// ---- The rule ----------------------------------------------------------------------

bool PXNetworkAvailabilityMonitor::networkAvailableForFlags(uint32_t flags) noexcept {
  if (!(flags & kPXNetworkReachabilityFlagsReachable)) return false;
  if (!(flags & kPXNetworkReachabilityFlagsConnectionRequired)) return true;
  if ((flags &
       (kPXNetworkReachabilityFlagsConnectionOnTraffic | kPXNetworkReachabilityFlagsConnectionOnDemand)) &&
      !(flags & kPXNetworkReachabilityFlagsInterventionRequired))
    return true;
  return (flags & kPXNetworkReachabilityFlagsIsLocalAddress) != 0;
}

uint32_t PXNetworkAvailabilityMonitor::reachabilityFlagsForNetworkState(bool networkAvailable,
                                                                        PXNetworkConnectivity connectivity,
                                                                        bool networkMetered,
                                                                        bool hostIsLocal) noexcept {
  // The machine itself is reachable without any network.
  if (hostIsLocal) return kPXNetworkReachabilityFlagsReachable | kPXNetworkReachabilityFlagsIsLocalAddress;
  if (!networkAvailable) return 0;
  uint32_t flags = kPXNetworkReachabilityFlagsReachable;
  switch (connectivity) {
    case PXNetworkConnectivity::Full:
      break;
    case PXNetworkConnectivity::Portal:
      flags |=
          kPXNetworkReachabilityFlagsConnectionRequired | kPXNetworkReachabilityFlagsInterventionRequired;
      break;
    case PXNetworkConnectivity::Local:
    case PXNetworkConnectivity::Limited:
    default:  // a level this kit does not know: not the internet
      flags |= kPXNetworkReachabilityFlagsConnectionRequired;
      break;
  }
  if (networkMetered) flags |= kPXNetworkReachabilityFlagsIsWWAN;
  return flags;
}

bool PXNetworkAvailabilityMonitor::isLocalHostName(const PXString& hostName) {
  if (hostName.isAbsent()) return false;
  std::string name(hostName.view());
  if (!name.empty() && name.back() == '.') name.pop_back();
  if (g_ascii_strcasecmp(name.c_str(), "localhost") == 0) return true;
  // An address literal, IPv6 possibly in brackets as in a URL.
  if (name.size() > 2 && name.front() == '[' && name.back() == ']') name = name.substr(1, name.size() - 2);
  pxkit::glib::Object<GInetAddress> address(g_inet_address_new_from_string(name.c_str()));
  return address && g_inet_address_get_is_loopback(address.get());
}
