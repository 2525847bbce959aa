// Power supplies → power-source descriptions (see PowerSupply.h).
#include "system/internal/PowerSupply.h"

#include <pxkit/objects/PXString.h>

#include <charconv>

namespace pxkit::internal {

namespace {

bool startsWith(std::string_view text, std::string_view prefix) {
  return text.substr(0, prefix.size()) == prefix;
}

// A decimal attribute; false when absent or not a number.
bool integerAttribute(const PowerSupply& supply, std::string_view key, long long* out) {
  std::string_view text = supply.attribute(key);
  if (text.empty()) return false;
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), *out);
  return ec == std::errc() && end == text.data() + text.size();
}

bool isBattery(const PowerSupply& supply) {
  std::string_view type = supply.attribute("type");
  return type == "Battery" || type == "UPS";
}

// Where a peripheral battery hangs: its bus, read from its sysfs path.
std::string_view peripheralTransport(const PowerSupply& supply) {
  if (supply.sysfsPath.find("/usb") != std::string::npos) return "USB";
  if (supply.sysfsPath.find("bluetooth") != std::string::npos) return "Bluetooth";
  return "External";
}

}  // namespace

bool isLinePower(const PowerSupply& supply) {
  std::string_view type = supply.attribute("type");
  return type == "Mains" || type == "Wireless" || startsWith(type, "USB");
}

bool anyLinePowerOnline(const std::vector<PowerSupply>& supplies) {
  for (const PowerSupply& supply : supplies) {
    long long online = 0;
    if (isLinePower(supply) && integerAttribute(supply, "online", &online) && online != 0) return true;
  }
  return false;
}

PXRef<PXDictionary> powerSourceDescription(const PowerSupply& supply, bool linePowerOnline) {
  if (!isBattery(supply)) return {};
  const bool ups = supply.attribute("type") == "UPS";
  const bool internal = !ups && supply.attribute("scope") != "Device";
  long long present = 1;
  if (!integerAttribute(supply, "present", &present)) present = 1;  // no attribute: there
  const std::string_view status = supply.attribute("status");
  const bool charging = status == "Charging";
  const bool onMains = charging || status == "Full" || status == "Not charging";

  std::string_view state;
  if (present == 0) {
    state = kPowerSourceOffLine;
  } else if (internal) {
    state = (linePowerOnline || onMains) ? kPowerSourceACPower : kPowerSourceBatteryPower;
  } else {
    state = status == "Discharging" ? kPowerSourceBatteryPower : kPowerSourceACPower;
  }

  auto description = PXMutableDictionary::dictionary();
  description->setObject(supply.name, kPowerSourceNameKey);
  description->setObject(ups ? "UPS" : (internal ? "InternalBattery" : "Battery"), kPowerSourceTypeKey);
  description->setObject(internal ? kPowerSourceInternal : peripheralTransport(supply),
                         kPowerSourceTransportTypeKey);
  description->setObject(state, kPowerSourceStateKey);
  description->setObject(present != 0, kPowerSourceIsPresentKey);
  description->setObject(charging, kPowerSourceIsChargingKey);
  description->setObject(status == "Full", kPowerSourceIsChargedKey);
  long long capacity = 0;
  if (integerAttribute(supply, "capacity", &capacity) && capacity >= 0 && capacity <= 100) {
    description->setObject(static_cast<int>(capacity), kPowerSourceCurrentCapacityKey);
    description->setObject(100, kPowerSourceMaxCapacityKey);
  }
  long long secondsToEmpty = 0;
  if (integerAttribute(supply, "time_to_empty_now", &secondsToEmpty) && secondsToEmpty >= 0) {
    description->setObject(static_cast<int>(secondsToEmpty / 60), kPowerSourceTimeToEmptyKey);
  }
  return description;
}

std::vector<PXRef<PXDictionary>> powerSourceDescriptions(const std::vector<PowerSupply>& supplies) {
  const bool linePowerOnline = anyLinePowerOnline(supplies);
  std::vector<PXRef<PXDictionary>> descriptions;
  for (const PowerSupply& supply : supplies) {
    if (PXRef<PXDictionary> description = powerSourceDescription(supply, linePowerOnline)) {
      descriptions.push_back(std::move(description));
    }
  }
  return descriptions;
}

PXRef<PXDictionary> internalPowerSource(const std::vector<PXRef<PXDictionary>>& descriptions) {
  for (const PXRef<PXDictionary>& description : descriptions) {
    if (description->objectForKey(kPowerSourceTransportTypeKey).stringValue() == kPowerSourceInternal) {
      return description;
    }
  }
  return {};
}

}  // namespace pxkit::internal
