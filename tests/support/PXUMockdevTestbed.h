// A device testbed for one test (one per process): fake sysfs devices, attribute changes and
// uevents through umockdev, seen by the code under test as the machine's own devices. The test
// must run preloaded with umockdev (WRAPPER umockdev-wrapper); otherwise the real /sys would stay
// in place, so PX_SKIP_WITHOUT_UMOCKDEV() skips.
#pragma once

#include <umockdev.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "platform/internal/GLibHandles.h"

#define PX_SKIP_WITHOUT_UMOCKDEV()                                                      \
  do {                                                                                  \
    if (std::string reason = PXUMockdevTestbed::unavailableReason(); !reason.empty()) { \
      GTEST_SKIP() << reason;                                                           \
    }                                                                                   \
  } while (0)

class PXUMockdevTestbed {
 public:
  using Pairs = std::vector<std::pair<std::string, std::string>>;

  // Empty when preloaded (umockdev_in_mock_environment() answers only under umockdev-run).
  static std::string unavailableReason() {
    const char* preload = std::getenv("LD_PRELOAD");
    if (preload && std::strstr(preload, "libumockdev-preload")) return {};
    return "not running under umockdev-wrapper (LD_PRELOAD lacks libumockdev-preload)";
  }

  PXUMockdevTestbed() = default;
  PXUMockdevTestbed(const PXUMockdevTestbed&) = delete;
  PXUMockdevTestbed& operator=(const PXUMockdevTestbed&) = delete;

  // Adds a device under `parent` (a path returned earlier, or empty) with sysfs attributes and
  // udev properties (DEVTYPE among them when it needs one); returns its "/sys/devices/..." path.
  std::string addDevice(const std::string& subsystem, const std::string& name, const std::string& parent,
                        const Pairs& attributes, const Pairs& properties = {}) {
    auto flatten = [](const Pairs& pairs) {
      std::vector<const char*> list;  // name, value, ..., null
      for (const auto& [key, value] : pairs) list.insert(list.end(), {key.c_str(), value.c_str()});
      list.push_back(nullptr);
      return list;
    };
    std::vector<const char*> attrs = flatten(attributes), props = flatten(properties);
    pxkit::glib::String path(umockdev_testbed_add_devicev(
        testbed_.get(), subsystem.c_str(), name.c_str(), parent.empty() ? nullptr : parent.c_str(),
        const_cast<gchar**>(attrs.data()), const_cast<gchar**>(props.data())));
    return path ? path.get() : "";
  }
  void setAttribute(const std::string& sysfsPath, const std::string& name, const std::string& value) {
    umockdev_testbed_set_attribute(testbed_.get(), sysfsPath.c_str(), name.c_str(), value.c_str());
  }
  void uevent(const std::string& sysfsPath, const std::string& action) {  // "add", "change", ...
    umockdev_testbed_uevent(testbed_.get(), sysfsPath.c_str(), action.c_str());
  }

 private:
  pxkit::glib::Object<UMockdevTestbed> testbed_{umockdev_testbed_new()};
};
