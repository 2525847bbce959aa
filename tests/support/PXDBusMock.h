// A private system bus with python-dbusmock services on it, for one test.
//
//   TEST(PXSystemEvents, WakeFromLogind) {
//     PX_SKIP_WITHOUT_DBUS_MOCK();
//     PXDBusMock bus;                                  // before the code under test reaches the bus
//     ASSERT_TRUE(bus.startTemplate("logind", "org.freedesktop.login1"));
//     ...
//     bus.emitSignal("org.freedesktop.login1", "/org/freedesktop/login1",
//                    "org.freedesktop.login1.Manager", "PrepareForSleep", "b",
//                    {g_variant_new_boolean(FALSE)});
//   }
//
// The bus is a dbus-daemon of the test's own (GTestDBus), exported as
// DBUS_SYSTEM_BUS_ADDRESS, so the code under test finds it as "the system bus".
// GLib keeps one system-bus connection per process, made on first use: make
// the fixture before the code under test asks for the bus (every test case
// runs in a process of its own). The mock services are Debian's
// python3-dbusmock, always run with /usr/bin/python3 (another python3 on PATH
// may lack the module).
//
// Waiting here is on events (the bus name appearing, the mock exiting), never
// on time; a generous guard turns a hang into a failure with a message.
#pragma once

#include <gio/gio.h>

#include <functional>
#include <initializer_list>
#include <string>
#include <vector>

#include "platform/internal/GLibHandles.h"

// Skips the current test, with the reason, when no private bus with dbusmock
// can be made on this machine.
#define PX_SKIP_WITHOUT_DBUS_MOCK()                                              \
  do {                                                                           \
    if (std::string reason = PXDBusMock::unavailableReason(); !reason.empty()) { \
      GTEST_SKIP() << reason;                                                    \
    }                                                                            \
  } while (0)

class PXDBusMock {
 public:
  // Empty when dbus-daemon and /usr/bin/python3 -m dbusmock are both usable
  // here; otherwise what is missing.
  static std::string unavailableReason();

  // Starts the private bus and exports it as the system bus. Check isUp().
  PXDBusMock();
  // Stops the mocks and the bus, and restores DBUS_SYSTEM_BUS_ADDRESS.
  ~PXDBusMock();
  PXDBusMock(const PXDBusMock&) = delete;
  PXDBusMock& operator=(const PXDBusMock&) = delete;

  bool isUp() const noexcept { return connection_ != nullptr; }

  // Runs `/usr/bin/python3 -m dbusmock --system --template <templateName>`
  // (with `--parameters <json>` when given) and waits until it owns `busName`.
  // False, with the reason in *error, when it exits or never shows up.
  bool startTemplate(const std::string& templateName, const std::string& busName,
                     const std::string& parametersJson = {}, std::string* error = nullptr);

  // Stops the mock started for `busName` (SIGTERM, and waits for it to exit):
  // the name vanishes from the bus. False when no mock owns it.
  bool stopTemplate(const std::string& busName);

  // Calls a method on the bus from the test's connection; the reply, or null
  // with the message in *error. `args` may be floating (it is consumed).
  pxkit::glib::Variant call(const char* busName, const char* path, const char* interface, const char* method,
                            GVariant* args = nullptr, std::string* error = nullptr);
  // Asks the mock object at `path` to emit a signal (org.freedesktop.DBus.Mock.EmitSignal).
  bool emitSignal(const char* busName, const char* path, const char* interface, const char* name,
                  const char* signature, std::initializer_list<GVariant*> args, std::string* error = nullptr);

 private:
  GTestDBus* bus_ = nullptr;
  bool hadSystemAddress_ = false;
  std::string savedSystemAddress_;
  pxkit::glib::Object<GDBusConnection> connection_;  // the test's own, not the process's shared one
  struct Mock {
    std::string busName;
    pxkit::glib::Object<GSubprocess> process;
  };
  std::vector<Mock> mocks_;
};

// Iterates the main context (the global default one) until `done()` is true,
// blocking between events. Returns false if `guardSeconds` pass first (a guard
// against hangs, not a measure of anything). Call on the main thread.
bool PXIterateMainContextUntil(const std::function<bool()>& done, double guardSeconds = 30);
