// A device testbed for one test: fake sysfs devices (umockdev), their
// attribute changes and synthetic uevents, seen by the code under test as
// the machine's own devices.
//
//   TEST(PXIOService, Battery) {
//     PX_SKIP_WITHOUT_UMOCKDEV();
//     PXUMockdevTestbed testbed;
//     std::string bat = testbed.addDevice("power_supply", "BAT0", "", {{"type", "Battery"}, {"status",
//     "Full"}}); testbed.setAttribute(bat, "status", "Discharging"); testbed.uevent(bat, "change");
//   }
//
// The test binary must run preloaded with umockdev's library (the test's
// WRAPPER is umockdev-wrapper); otherwise the testbed would silently leave
// the real /sys in place, so tests skip instead. The testbed replaces all of
// /sys for the process while it lives. One per test process.
#pragma once

#include <string>
#include <utility>
#include <vector>

struct _UMockdevTestbed;

#define PX_SKIP_WITHOUT_UMOCKDEV()                                                      \
  do {                                                                                  \
    if (std::string reason = PXUMockdevTestbed::unavailableReason(); !reason.empty()) { \
      GTEST_SKIP() << reason;                                                           \
    }                                                                                   \
  } while (0)

class PXUMockdevTestbed {
 public:
  using Pairs = std::vector<std::pair<std::string, std::string>>;

  // Empty when the process runs preloaded with umockdev; otherwise why not.
  static std::string unavailableReason();

  PXUMockdevTestbed();
  ~PXUMockdevTestbed();
  PXUMockdevTestbed(const PXUMockdevTestbed&) = delete;
  PXUMockdevTestbed& operator=(const PXUMockdevTestbed&) = delete;

  // Adds a device of `subsystem` called `name` under `parent` (a sysfs path
  // returned earlier, or empty for the top) with sysfs attributes and udev
  // properties; returns its sysfs path ("/sys/devices/..."). SUBSYSTEM is set
  // for it; DEVTYPE is among the properties when the device needs one.
  std::string addDevice(const std::string& subsystem, const std::string& name, const std::string& parent,
                        const Pairs& attributes, const Pairs& properties = {});
  void setAttribute(const std::string& sysfsPath, const std::string& name, const std::string& value);
  // Sends a uevent ("add", "change", "remove", ...) for the device.
  void uevent(const std::string& sysfsPath, const std::string& action);

 private:
  _UMockdevTestbed* testbed_ = nullptr;
};
