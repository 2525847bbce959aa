// The system bus as a service of the platform layer: one connection for the
// kit, reached asynchronously, and watchers that subsystems register with it.
//
// A watcher names a bus name (a well-known name such as
// "org.freedesktop.login1") and the signals of that name it wants (interface,
// member, and an object path or any path). It is told when the name appears
// (gains an owner, also when it already has one at registration) and vanishes
// (loses it), and receives each of its signals, all on the GLib context it was
// registered for (by default the registering thread's thread-default context),
// in the order the bus delivered them.
//
//   pxkit::internal::SystemBusWatcher watcher;
//   watcher.busName = "org.freedesktop.login1";
//   watcher.signals = {{"org.freedesktop.login1.Manager", "PrepareForSleep", "/org/freedesktop/login1"}};
//   watcher.nameAppeared = [](GDBusConnection* bus, const char* owner) { ... };
//   watcher.nameVanished = [] { ... };
//   watcher.signal = [](const pxkit::internal::SystemBusSignal& s) { ... s.parameters ... };
//   watch_ = pxkit::internal::SystemBus::watch(std::move(watcher), g_main_context_default());
//   ...
//   watch_.reset();   // unregistered: no callback runs after this returns
//
// The connection is GLib's shared system-bus connection, asked for once, on
// the context of the first registration, without blocking. No system bus
// (containers, CI, minimal systems): every watcher's state becomes
// Unavailable, nothing is logged above debug level, and no callback is ever
// called. A name that never appears is not an error either: the watcher
// listens and hears nothing.
//
// Thread safety: every member may be called from any thread. The callbacks run
// on the watcher's context, never two of one watcher at once. Destroying a
// watch (from any thread, also from inside one of its own callbacks) returns
// once no callback of it is running on another thread, and none is called
// afterwards; a callback must therefore not block on a thread that is
// destroying its watch.
#pragma once

#include <gio/gio.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace pxkit::internal {

// One signal a watcher subscribes to; an empty path matches every object path.
struct SystemBusSignalMatch {
  std::string interface;
  std::string member;
  std::string path;
};

// One signal received: borrowed for the callback's length.
struct SystemBusSignal {
  const char* sender;  // the unique name that sent it
  const char* path;
  const char* interface;
  const char* member;
  GVariant* parameters;  // a tuple, never null
};

struct SystemBusWatcher {
  std::string busName;
  std::vector<SystemBusSignalMatch> signals;
  // The name has an owner now (`owner` is its unique name). Optional.
  std::function<void(GDBusConnection* bus, const char* owner)> nameAppeared;
  // The name had an owner and lost it. Optional; not called for a name that
  // was never seen.
  std::function<void()> nameVanished;
  // One of the subscribed signals, sent by the name's owner. Optional.
  std::function<void(const SystemBusSignal& signal)> signal;
};

struct SystemBusWatchEntry;

// How far a watcher has come.
enum class SystemBusWatchState {
  Connecting,   // waiting for the system bus
  Listening,    // subscribed, and the bus has applied its match rules
  Unavailable,  // no system bus: nothing will be heard
  Removed,      // the watch was destroyed
};

// A registration; destroying (or reset()) unregisters it. Move-only.
class SystemBusWatch {
 public:
  SystemBusWatch() = default;
  ~SystemBusWatch() { reset(); }
  SystemBusWatch(SystemBusWatch&&) noexcept = default;
  SystemBusWatch& operator=(SystemBusWatch&& other) noexcept {
    if (this != &other) {
      reset();
      entry_ = std::move(other.entry_);
    }
    return *this;
  }
  SystemBusWatch(const SystemBusWatch&) = delete;
  SystemBusWatch& operator=(const SystemBusWatch&) = delete;

  // Unregisters (see Thread safety above). An empty watch: no-op.
  void reset();
  // Where the registration stands; Removed for an empty watch.
  SystemBusWatchState state() const noexcept;
  explicit operator bool() const noexcept { return static_cast<bool>(entry_); }

 private:
  friend class SystemBus;
  explicit SystemBusWatch(std::shared_ptr<SystemBusWatchEntry> entry) : entry_(std::move(entry)) {}
  std::shared_ptr<SystemBusWatchEntry> entry_;
};

class SystemBus {
 public:
  SystemBus() = delete;

  // Registers `watcher` and returns its watch. Its callbacks run on `context`
  // (null: the calling thread's thread-default context, the global default
  // when it has none), which must be iterated for anything to be heard. Never
  // blocks on the bus. An empty bus name registers nothing (an empty watch).
  static SystemBusWatch watch(SystemBusWatcher watcher, GMainContext* context = nullptr);
};

}  // namespace pxkit::internal
