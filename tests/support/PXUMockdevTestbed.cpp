// The device testbed on umockdev's in-process API (see PXUMockdevTestbed.h).
#include "support/PXUMockdevTestbed.h"

#include <umockdev.h>

#include <cstdlib>
#include <cstring>

std::string PXUMockdevTestbed::unavailableReason() {
  // umockdev's own test: its library is preloaded (umockdev_in_mock_environment
  // answers only under umockdev-run).
  const char* preload = std::getenv("LD_PRELOAD");
  if (preload && std::strstr(preload, "libumockdev-preload")) return {};
  return "not running under umockdev-wrapper (LD_PRELOAD lacks libumockdev-preload)";
}

PXUMockdevTestbed::PXUMockdevTestbed() : testbed_(umockdev_testbed_new()) {}

PXUMockdevTestbed::~PXUMockdevTestbed() {
  if (testbed_) g_object_unref(testbed_);
}

namespace {
std::vector<const char*> flatten(const PXUMockdevTestbed::Pairs& pairs) {
  std::vector<const char*> out;
  for (const auto& [key, value] : pairs) {
    out.push_back(key.c_str());
    out.push_back(value.c_str());
  }
  out.push_back(nullptr);
  return out;
}
}  // namespace

std::string PXUMockdevTestbed::addDevice(const std::string& subsystem, const std::string& name,
                                         const std::string& parent, const Pairs& attributes,
                                         const Pairs& properties) {
  std::vector<const char*> attrs = flatten(attributes);
  std::vector<const char*> props = flatten(properties);
  gchar* path = umockdev_testbed_add_devicev(
      testbed_, subsystem.c_str(), name.c_str(), parent.empty() ? nullptr : parent.c_str(),
      const_cast<gchar**>(attrs.data()), const_cast<gchar**>(props.data()));
  std::string result = path ? path : "";
  g_free(path);
  return result;
}

void PXUMockdevTestbed::setAttribute(const std::string& sysfsPath, const std::string& name,
                                     const std::string& value) {
  umockdev_testbed_set_attribute(testbed_, sysfsPath.c_str(), name.c_str(), value.c_str());
}

void PXUMockdevTestbed::uevent(const std::string& sysfsPath, const std::string& action) {
  umockdev_testbed_uevent(testbed_, sysfsPath.c_str(), action.c_str());
}
