#include "support/PXDBusMock.h"

#include <stdlib.h>

#include <mutex>

#include "support/PXSubprocess.h"

namespace {

constexpr const char* kPython = "/usr/bin/python3";
constexpr double kGuardSeconds = 30;

// Iterates `context` until `done()` or the guard fires.
bool iterateUntil(GMainContext* context, const std::function<bool()>& done, double guardSeconds) {
  bool expired = false;
  pxkit::glib::AttachedSource guard(g_timeout_source_new(static_cast<guint>(guardSeconds * 1000)));
  g_source_set_callback(
      guard.get(),
      [](gpointer flag) -> gboolean {
        *static_cast<bool*>(flag) = true;
        return G_SOURCE_REMOVE;
      },
      &expired, nullptr);
  g_source_attach(guard.get(), context);
  while (!done()) {
    if (expired) return false;
    g_main_context_iteration(context, TRUE);
  }
  return true;
}

}  // namespace

bool PXIterateMainContextUntil(const std::function<bool()>& done, double guardSeconds) {
  return iterateUntil(g_main_context_default(), done, guardSeconds);
}

std::string PXDBusMock::unavailableReason() {
  static std::string reason = [] {
    pxkit::glib::String daemon(g_find_program_in_path("dbus-daemon"));
    if (!daemon) return std::string("dbus-daemon is not installed (package dbus-daemon)");
    if (!g_file_test(kPython, G_FILE_TEST_IS_EXECUTABLE)) return std::string(kPython) + " is missing";
    if (PXSubprocess::run({kPython, "-c", "import dbusmock"}).exitStatus != 0)
      return std::string(kPython) + " cannot import dbusmock (package python3-dbusmock)";
    return std::string();
  }();
  return reason;
}

PXDBusMock::PXDBusMock() {
  const char* old = getenv("DBUS_SYSTEM_BUS_ADDRESS");
  hadSystemAddress_ = old != nullptr;
  if (old) savedSystemAddress_ = old;

  bus_ = g_test_dbus_new(G_TEST_DBUS_NONE);
  g_test_dbus_up(bus_);
  const char* address = g_test_dbus_get_bus_address(bus_);
  if (!address) return;
  setenv("DBUS_SYSTEM_BUS_ADDRESS", address, 1);
  connection_.reset(g_dbus_connection_new_for_address_sync(
      address,
      static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                        G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
      nullptr, nullptr, nullptr));
}

PXDBusMock::~PXDBusMock() {
  // The process's shared system-bus connection ends the process when its bus
  // goes away; this bus is about to, on purpose.
  if (isUp()) {
    pxkit::glib::Object<GDBusConnection> shared(g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr));
    if (shared) g_dbus_connection_set_exit_on_close(shared.get(), FALSE);
  }
  for (auto& mock : mocks_) {
    g_subprocess_send_signal(mock.process.get(), SIGTERM);
    g_subprocess_wait(mock.process.get(), nullptr, nullptr);
  }
  mocks_.clear();
  if (connection_) g_dbus_connection_close_sync(connection_.get(), nullptr, nullptr);
  connection_.reset();
  if (bus_) {
    g_test_dbus_down(bus_);
    g_object_unref(bus_);
  }
  if (hadSystemAddress_) {
    setenv("DBUS_SYSTEM_BUS_ADDRESS", savedSystemAddress_.c_str(), 1);
  } else {
    unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
  }
}

bool PXDBusMock::startTemplate(const std::string& templateName, const std::string& busName,
                               const std::string& parametersJson, std::string* error) {
  auto fail = [&](std::string message) {
    if (error) *error = std::move(message);
    return false;
  };
  if (!isUp()) return fail("the private bus did not start");

  std::vector<const char*> argv = {kPython, "-m", "dbusmock", "--system", "--template", templateName.c_str()};
  if (!parametersJson.empty()) {
    argv.push_back("--parameters");
    argv.push_back(parametersJson.c_str());
  }
  argv.push_back(nullptr);
  pxkit::glib::Error spawnError;
  pxkit::glib::Object<GSubprocess> mock(
      g_subprocess_newv(argv.data(), G_SUBPROCESS_FLAGS_STDOUT_SILENCE, pxkit::glib::out(spawnError)));
  if (!mock) return fail(std::string("cannot run dbusmock: ") + spawnError->message);

  // Wait, on a context of our own, for the name to appear or the mock to die.
  pxkit::glib::MainContext context(g_main_context_new());
  pxkit::glib::ThreadDefaultContext scope(context.get());
  struct Wait {
    bool appeared = false;
    bool exited = false;
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
  const bool inTime = iterateUntil(
      context.get(), [&] { return wait.appeared || wait.exited; }, kGuardSeconds);
  g_bus_unwatch_name(watch);
  g_cancellable_cancel(cancel.get());
  // Let the cancelled wait finish on this context before `wait` goes away.
  while (g_main_context_iteration(context.get(), FALSE)) {
  }
  if (!wait.appeared) {
    if (!wait.exited) g_subprocess_force_exit(mock.get());
    return fail(inTime ? "dbusmock exited before owning " + busName : "dbusmock never owned " + busName);
  }
  mocks_.push_back({busName, std::move(mock)});
  return true;
}

bool PXDBusMock::stopTemplate(const std::string& busName) {
  for (auto mock = mocks_.begin(); mock != mocks_.end(); ++mock) {
    if (mock->busName != busName) continue;
    g_subprocess_send_signal(mock->process.get(), SIGTERM);
    g_subprocess_wait(mock->process.get(), nullptr, nullptr);
    mocks_.erase(mock);
    return true;
  }
  return false;
}

pxkit::glib::Variant PXDBusMock::call(const char* busName, const char* path, const char* interface,
                                      const char* method, GVariant* args, std::string* error) {
  pxkit::glib::Error callError;
  pxkit::glib::Variant reply(g_dbus_connection_call_sync(connection_.get(), busName, path, interface, method,
                                                         args, nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr,
                                                         pxkit::glib::out(callError)));
  if (!reply && error) *error = callError ? callError->message : "no reply";
  return reply;
}

bool PXDBusMock::emitSignal(const char* busName, const char* path, const char* interface, const char* name,
                            const char* signature, std::initializer_list<GVariant*> args,
                            std::string* error) {
  GVariantBuilder list;
  g_variant_builder_init(&list, G_VARIANT_TYPE("av"));
  for (GVariant* arg : args) g_variant_builder_add(&list, "v", arg);
  return static_cast<bool>(call(busName, path, "org.freedesktop.DBus.Mock", "EmitSignal",
                                g_variant_new("(sssav)", interface, name, signature, &list), error));
}
