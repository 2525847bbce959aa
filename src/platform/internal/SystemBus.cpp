#include "platform/internal/SystemBus.h"

#include <pxkit/objects/PXException.h>
#include <pxkit/platform/PXLog.h>

#include <atomic>
#include <exception>
#include <mutex>
#include <utility>

#include "platform/internal/GLibHandles.h"
#include "platform/internal/RunOnContext.h"

namespace pxkit::internal {

struct SystemBusWatchEntry {
  SystemBusWatcher watcher;
  glib::MainContext context;
  std::atomic<SystemBusWatchState> state{SystemBusWatchState::Connecting};

  // Held while a callback runs and while the watch is removed, so removal
  // waits for a callback running on another thread. Recursive: a callback may
  // remove its own watch.
  std::recursive_mutex delivery;
  // Under `delivery`:
  bool removed = false;
  bool nameSeen = false;  // the name has had an owner since the watch began
  glib::Object<GDBusConnection> bus;
  guint nameWatch = 0;
  std::vector<guint> subscriptions;
};

namespace {

using Entry = SystemBusWatchEntry;
using EntryRef = std::shared_ptr<Entry>;

// ---- The shared connection ---------------------------------------------------------

enum class BusState { NotAsked, Connecting, Connected, Unavailable };

struct Service {
  std::mutex mutex;
  BusState state = BusState::NotAsked;
  glib::Object<GDBusConnection> bus;
  std::vector<EntryRef> waiting;  // registered before the connection was there
};

Service& service() {
  static auto* made = new Service;  // lives until the process ends
  return *made;
}

// GLib callbacks carry a counted reference to their entry.
gpointer carry(const EntryRef& entry) {
  return new EntryRef(entry);
}
void dropCarried(gpointer data) {
  delete static_cast<EntryRef*>(data);
}
Entry& carried(gpointer data) {
  return **static_cast<EntryRef*>(data);
}

// Runs one callback of a watcher, unless the watch has been removed.
template <class Call>
void deliver(Entry& entry, const char* what, Call&& call) {
  std::lock_guard lock(entry.delivery);
  if (entry.removed) return;
  try {
    call();
  } catch (const PXException& e) {
    PXLogWithLevel(PXLogLevel::Error, "PXKit: the %s handler of the watcher of %s raised: %@", what,
                   entry.watcher.busName.c_str(), e.description());
  } catch (const std::exception& e) {
    PXLogWithLevel(PXLogLevel::Error, "PXKit: the %s handler of the watcher of %s raised: %s", what,
                   entry.watcher.busName.c_str(), e.what());
  }
}

void onSignal(GDBusConnection*, const gchar* sender, const gchar* path, const gchar* interface,
              const gchar* member, GVariant* parameters, gpointer data) {
  Entry& entry = carried(data);
  if (!entry.watcher.signal) return;
  const SystemBusSignal signal{sender, path, interface, member, parameters};
  deliver(entry, "signal", [&] { entry.watcher.signal(signal); });
}

void onNameAppeared(GDBusConnection* bus, const gchar*, const gchar* owner, gpointer data) {
  Entry& entry = carried(data);
  deliver(entry, "name-appeared", [&] {
    entry.nameSeen = true;
    if (entry.watcher.nameAppeared) entry.watcher.nameAppeared(bus, owner);
  });
}

void onNameVanished(GDBusConnection*, const gchar*, gpointer data) {
  Entry& entry = carried(data);
  deliver(entry, "name-vanished", [&] {
    if (!std::exchange(entry.nameSeen, false)) return;  // never had an owner: nothing vanished
    if (entry.watcher.nameVanished) entry.watcher.nameVanished();
  });
}

// On the watcher's context: subscribes to its signals and watches its name.
void subscribe(const EntryRef& entry, GDBusConnection* bus) {
  std::lock_guard lock(entry->delivery);
  if (entry->removed) return;
  entry->bus = glib::ref(bus);
  const char* name = entry->watcher.busName.c_str();
  for (const SystemBusSignalMatch& match : entry->watcher.signals) {
    entry->subscriptions.push_back(g_dbus_connection_signal_subscribe(
        bus, name, match.interface.empty() ? nullptr : match.interface.c_str(),
        match.member.empty() ? nullptr : match.member.c_str(),
        match.path.empty() ? nullptr : match.path.c_str(), nullptr, G_DBUS_SIGNAL_FLAGS_NONE, onSignal,
        carry(entry), dropCarried));
  }
  entry->nameWatch = g_bus_watch_name_on_connection(bus, name, G_BUS_NAME_WATCHER_FLAGS_NONE, onNameAppeared,
                                                    onNameVanished, carry(entry), dropCarried);
  // The subscriptions' match rules are sent without a reply; the answer to
  // any later call on the connection proves the bus daemon has applied them.
  g_dbus_connection_call(
      bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "GetId", nullptr,
      G_VARIANT_TYPE("(s)"), G_DBUS_CALL_FLAGS_NONE, -1, nullptr,
      [](GObject* source, GAsyncResult* reply, gpointer data) {
        glib::Variant ignored(g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), reply, nullptr));
        std::unique_ptr<EntryRef> held(static_cast<EntryRef*>(data));
        Entry& e = **held;
        std::lock_guard guard(e.delivery);
        if (!e.removed) e.state.store(SystemBusWatchState::Listening, std::memory_order_release);
      },
      carry(entry));
}

void subscribeOnItsContext(const EntryRef& entry, GDBusConnection* bus) {
  glib::Object<GDBusConnection> held = glib::ref(bus);
  runOnContext(
      entry->context.get(),
      [entry, held = std::shared_ptr<GDBusConnection>(held.release(), g_object_unref)] {
        subscribe(entry, held.get());
      },
      RunOnContextMode::DontWait);
}

void onBusReady(GObject*, GAsyncResult* result, gpointer) {
  Service& s = service();
  glib::Error error;
  glib::Object<GDBusConnection> bus(g_bus_get_finish(result, glib::out(error)));
  std::vector<EntryRef> waiting;
  {
    std::lock_guard lock(s.mutex);
    s.state = bus ? BusState::Connected : BusState::Unavailable;
    s.bus = glib::ref(bus.get());
    waiting.swap(s.waiting);
  }
  if (!bus) {
    // No system bus (containers, CI, minimal systems): there are no events to
    // hear, which is not an error of the host's.
    PXLogWithLevel(PXLogLevel::Debug, "PXKit: no system bus, so no system events: %s",
                   error ? error->message : "");
  }
  for (const EntryRef& entry : waiting) {
    if (bus) {
      subscribeOnItsContext(entry, bus.get());
    } else {
      std::lock_guard lock(entry->delivery);
      if (!entry->removed) entry->state.store(SystemBusWatchState::Unavailable, std::memory_order_release);
    }
  }
}

}  // namespace

SystemBusWatch SystemBus::watch(SystemBusWatcher watcher, GMainContext* context) {
  if (watcher.busName.empty()) return {};
  auto entry = std::make_shared<Entry>();
  entry->watcher = std::move(watcher);
  entry->context.reset(context ? g_main_context_ref(context) : g_main_context_ref_thread_default());

  Service& s = service();
  glib::Object<GDBusConnection> bus;
  bool ask = false;
  {
    std::lock_guard lock(s.mutex);
    switch (s.state) {
      case BusState::NotAsked:
        s.state = BusState::Connecting;
        ask = true;
        [[fallthrough]];
      case BusState::Connecting:
        s.waiting.push_back(entry);
        break;
      case BusState::Connected:
        bus = glib::ref(s.bus.get());
        break;
      case BusState::Unavailable:
        entry->state.store(SystemBusWatchState::Unavailable, std::memory_order_release);
        break;
    }
  }
  if (ask) {
    // Asynchronous: with no system bus the answer comes back on the context
    // later, and the caller never waits for it.
    runOnContext(
        entry->context.get(), [] { g_bus_get(G_BUS_TYPE_SYSTEM, nullptr, onBusReady, nullptr); },
        RunOnContextMode::DontWait);
  }
  if (bus) subscribeOnItsContext(entry, bus.get());
  return SystemBusWatch(std::move(entry));
}

void SystemBusWatch::reset() {
  EntryRef entry = std::move(entry_);
  if (!entry) return;
  glib::Object<GDBusConnection> bus;
  guint nameWatch = 0;
  std::vector<guint> subscriptions;
  {
    std::lock_guard lock(entry->delivery);  // waits for a callback running elsewhere
    entry->removed = true;
    entry->state.store(SystemBusWatchState::Removed, std::memory_order_release);
    bus = std::move(entry->bus);
    nameWatch = std::exchange(entry->nameWatch, 0);
    subscriptions.swap(entry->subscriptions);
  }
  for (guint id : subscriptions) g_dbus_connection_signal_unsubscribe(bus.get(), id);
  if (nameWatch) g_bus_unwatch_name(nameWatch);
}

SystemBusWatchState SystemBusWatch::state() const noexcept {
  return entry_ ? entry_->state.load(std::memory_order_acquire) : SystemBusWatchState::Removed;
}

}  // namespace pxkit::internal
