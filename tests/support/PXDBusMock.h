// A private system bus (a dbus-daemon of the test's own, exported as DBUS_SYSTEM_BUS_ADDRESS) with
// python3-dbusmock services on it. GLib keeps the process's system-bus connection from its first
// use: make the fixture first. Waits are on events; a generous guard turns a hang into a failure.
//
//   PX_SKIP_WITHOUT_DBUS_MOCK();
//   PXDBusMock bus;
//   ASSERT_TRUE(bus.startTemplate("logind", "org.freedesktop.login1"));
#pragma once

#include <gio/gio.h>
#include <stdlib.h>

#include <functional>
#include <initializer_list>
#include <map>
#include <string>
#include <vector>

#include "platform/internal/GLibHandles.h"
#include "support/PXSubprocess.h"

#define PX_SKIP_WITHOUT_DBUS_MOCK()                                              \
  do {                                                                           \
    if (std::string reason = PXDBusMock::unavailableReason(); !reason.empty()) { \
      GTEST_SKIP() << reason;                                                    \
    }                                                                            \
  } while (0)

// Iterates `context` until `done()`; false once `guardSeconds` have passed (a hang guard).
inline bool PXIterateContextUntil(GMainContext* context, const std::function<bool()>& done,
                                  double guardSeconds) {
  const gint64 deadline = g_get_monotonic_time() + static_cast<gint64>(guardSeconds * G_USEC_PER_SEC);
  pxkit::glib::AttachedSource wake(g_timeout_source_new(static_cast<guint>(guardSeconds * 1000)));
  g_source_set_dummy_callback(wake.get());
  g_source_attach(wake.get(), context);
  while (!done()) {
    if (g_get_monotonic_time() >= deadline) return false;
    g_main_context_iteration(context, TRUE);
  }
  return true;
}

// The same on the default main context, from the main thread.
inline bool PXIterateMainContextUntil(const std::function<bool()>& done, double guardSeconds = 30) {
  return PXIterateContextUntil(g_main_context_default(), done, guardSeconds);
}

class PXDBusMock {
 public:
  // Empty when dbus-daemon and /usr/bin/python3 -m dbusmock are usable; otherwise what is missing.
  static std::string unavailableReason() {
    static const std::string reason = [] {
      if (!pxkit::glib::String(g_find_program_in_path("dbus-daemon")))
        return std::string("dbus-daemon is not installed (package dbus-daemon)");
      if (!g_file_test(kPython, G_FILE_TEST_IS_EXECUTABLE)) return std::string(kPython) + " is missing";
      if (PXSubprocess::run({kPython, "-c", "import dbusmock"}).exitStatus != 0)
        return std::string(kPython) + " cannot import dbusmock (package python3-dbusmock)";
      return std::string();
    }();
    return reason;
  }

  PXDBusMock() : bus_(g_test_dbus_new(G_TEST_DBUS_NONE)), savedAddress_(g_strdup(getenv(kVariable))) {
    g_test_dbus_up(bus_);
    if (const char* address = g_test_dbus_get_bus_address(bus_)) {
      setenv(kVariable, address, 1);
      connection_.reset(g_dbus_connection_new_for_address_sync(
          address,
          GDBusConnectionFlags(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                               G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
          nullptr, nullptr, nullptr));
    }
  }
  ~PXDBusMock() {
    // The process's shared connection ends the process when its bus goes away, as this one is about to.
    if (isUp()) {
      pxkit::glib::Object<GDBusConnection> shared(g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr));
      if (shared) g_dbus_connection_set_exit_on_close(shared.get(), FALSE);
    }
    while (!mocks_.empty()) stopTemplate(mocks_.begin()->first);
    if (connection_) g_dbus_connection_close_sync(connection_.get(), nullptr, nullptr);
    connection_.reset();
    g_test_dbus_down(bus_);
    g_object_unref(bus_);
    savedAddress_ ? setenv(kVariable, savedAddress_.get(), 1) : unsetenv(kVariable);
  }
  PXDBusMock(const PXDBusMock&) = delete;
  PXDBusMock& operator=(const PXDBusMock&) = delete;

  bool isUp() const noexcept { return connection_ != nullptr; }  // whether the bus started

  // Runs `dbusmock --system --template <templateName> [--parameters <json>]` and waits until it
  // owns `busName`; false, with the reason in *error, when it exits or never shows up.
  bool startTemplate(const std::string& templateName, const std::string& busName,
                     const std::string& parametersJson = {}, std::string* error = nullptr) {
    auto fail = [&](std::string message) {
      if (error) *error = std::move(message);
      return false;
    };
    if (!isUp()) return fail("the private bus did not start");
    std::vector<const char*> argv = {kPython,    "-m",         "dbusmock",
                                     "--system", "--template", templateName.c_str()};
    if (!parametersJson.empty()) argv.insert(argv.end(), {"--parameters", parametersJson.c_str()});
    argv.push_back(nullptr);
    pxkit::glib::Error spawnError;
    pxkit::glib::Object<GSubprocess> mock(
        g_subprocess_newv(argv.data(), G_SUBPROCESS_FLAGS_STDOUT_SILENCE, pxkit::glib::out(spawnError)));
    if (!mock) return fail(std::string("cannot run dbusmock: ") + spawnError->message);

    // Waits, on a context of its own, for the name to appear or the mock to exit.
    pxkit::glib::MainContext context(g_main_context_new());
    pxkit::glib::ThreadDefaultContext scope(context.get());
    struct Wait {
      bool appeared = false, exited = false;
    } wait;
    const guint watch = g_bus_watch_name_on_connection(
        connection_.get(), busName.c_str(), G_BUS_NAME_WATCHER_FLAGS_NONE,
        [](GDBusConnection*, const gchar*, const gchar*, gpointer data) {
          static_cast<Wait*>(data)->appeared = true;
        },
        nullptr, &wait, nullptr);
    pxkit::glib::Object<GCancellable> cancel(g_cancellable_new());
    g_subprocess_wait_async(
        mock.get(), cancel.get(),
        [](GObject*, GAsyncResult*, gpointer data) { static_cast<Wait*>(data)->exited = true; }, &wait);
    PXIterateContextUntil(
        context.get(), [&] { return wait.appeared || wait.exited; }, 30);
    g_bus_unwatch_name(watch);
    g_cancellable_cancel(cancel.get());
    while (g_main_context_iteration(context.get(), FALSE)) {  // the cancelled wait ends before `wait` goes
    }
    if (!wait.appeared) {
      if (!wait.exited) g_subprocess_force_exit(mock.get());
      return fail((wait.exited ? "dbusmock exited before owning " : "dbusmock never owned ") + busName);
    }
    mocks_.emplace(busName, std::move(mock));
    return true;
  }
  // Stops (SIGTERM, then waits) the mock that owns `busName`; false when none does.
  bool stopTemplate(const std::string& busName) {
    auto found = mocks_.find(busName);
    if (found == mocks_.end()) return false;
    g_subprocess_send_signal(found->second.get(), SIGTERM);
    g_subprocess_wait(found->second.get(), nullptr, nullptr);
    mocks_.erase(found);
    return true;
  }

  // A method call from the test's own connection: the reply, or null with the message in *error.
  // `args` may be floating (it is consumed).
  pxkit::glib::Variant call(const char* busName, const char* path, const char* interface, const char* method,
                            GVariant* args = nullptr, std::string* error = nullptr) {
    pxkit::glib::Error callError;
    pxkit::glib::Variant reply(g_dbus_connection_call_sync(connection_.get(), busName, path, interface,
                                                           method, args, nullptr, G_DBUS_CALL_FLAGS_NONE, -1,
                                                           nullptr, pxkit::glib::out(callError)));
    if (!reply && error) *error = callError ? callError->message : "no reply";
    return reply;
  }
  // Asks the mock object at `path` to emit a signal (org.freedesktop.DBus.Mock.EmitSignal).
  bool emitSignal(const char* busName, const char* path, const char* interface, const char* name,
                  const char* signature, std::initializer_list<GVariant*> args,
                  std::string* error = nullptr) {
    GVariantBuilder list;
    g_variant_builder_init(&list, G_VARIANT_TYPE("av"));
    for (GVariant* arg : args) g_variant_builder_add(&list, "v", arg);
    return static_cast<bool>(call(busName, path, "org.freedesktop.DBus.Mock", "EmitSignal",
                                  g_variant_new("(sssav)", interface, name, signature, &list), error));
  }

 private:
  static constexpr const char* kPython = "/usr/bin/python3";
  static constexpr const char* kVariable = "DBUS_SYSTEM_BUS_ADDRESS";

  GTestDBus* bus_;
  pxkit::glib::String savedAddress_;  // the variable's earlier value
  pxkit::glib::Object<GDBusConnection> connection_;
  std::map<std::string, pxkit::glib::Object<GSubprocess>> mocks_;  // by bus name
};
