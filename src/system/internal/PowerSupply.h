// The kernel's power supplies (/sys/class/power_supply) read as the kit's
// power-source descriptions: pure functions on attribute text, so that every
// rule below is tested without a device.
//
//   std::vector<PowerSupply> supplies = {
//       {"AC", "/sys/devices/.../AC", {{"type", "Mains"}, {"online", "0"}}},
//       {"BAT0", "/sys/devices/.../BAT0", {{"type", "Battery"}, {"status", "Discharging"}, {"capacity",
//       "80"}}}};
//   auto list = powerSourceDescriptions(supplies);   // one description: BAT0, "Battery Power"
//
// Which supplies are power sources: every battery (type "Battery" or "UPS").
// Line power (type "Mains", "USB*", "Wireless") is not listed; it decides the
// state of the batteries. A battery is built in ("Transport Type" "Internal")
// unless its scope is "Device" (a mouse, a headset); a missing scope is the
// system's own. The state of a built-in battery:
//  - "Off Line" when it is not present (present=0);
//  - "AC Power" when any line power is online, or the battery says it is
//    Charging, Full or Not charging;
//  - "Battery Power" otherwise.
// A peripheral battery or UPS is "Battery Power" while it discharges, else "AC Power".
//
// Thread safety: pure functions; any thread.
#pragma once

#include <pxkit/objects/PXDictionary.h>

#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace pxkit::internal {

// The description keys and state values (the registry's power-source words).
inline constexpr std::string_view kPowerSourceNameKey = "Name";
inline constexpr std::string_view kPowerSourceTypeKey = "Type";  // "InternalBattery", "UPS", "Battery"
inline constexpr std::string_view kPowerSourceTransportTypeKey = "Transport Type";
inline constexpr std::string_view kPowerSourceStateKey = "Power Source State";
inline constexpr std::string_view kPowerSourceIsPresentKey = "Is Present";
inline constexpr std::string_view kPowerSourceIsChargingKey = "Is Charging";
inline constexpr std::string_view kPowerSourceIsChargedKey = "Is Charged";
inline constexpr std::string_view kPowerSourceCurrentCapacityKey = "Current Capacity";
inline constexpr std::string_view kPowerSourceMaxCapacityKey = "Max Capacity";
inline constexpr std::string_view kPowerSourceTimeToEmptyKey = "Time to Empty";  // minutes
inline constexpr std::string_view kPowerSourceInternal = "Internal";
inline constexpr std::string_view kPowerSourceACPower = "AC Power";
inline constexpr std::string_view kPowerSourceBatteryPower = "Battery Power";
inline constexpr std::string_view kPowerSourceOffLine = "Off Line";

// One power supply as sysfs shows it: its name, its sysfs path, and its
// attributes (file name → text without the trailing newline).
struct PowerSupply {
  using Attrs = std::vector<std::pair<std::string, std::string>>;
  std::string name;
  std::string sysfsPath;
  std::map<std::string, std::string, std::less<>> attributes;

  std::string_view attribute(std::string_view key) const {
    auto it = attributes.find(key);
    return it == attributes.end() ? std::string_view() : std::string_view(it->second);
  }
};

// Whether a supply is line power (Mains, USB*, Wireless).
bool isLinePower(const PowerSupply& supply);
// Whether any line power is online (online=1).
bool anyLinePowerOnline(const std::vector<PowerSupply>& supplies);
// The description of one battery; null for a supply that is not one.
// `linePowerOnline`: what anyLinePowerOnline says of all the supplies.
PXRef<PXDictionary> powerSourceDescription(const PowerSupply& supply, bool linePowerOnline);
// The descriptions of all batteries, in the order given.
std::vector<PXRef<PXDictionary>> powerSourceDescriptions(const std::vector<PowerSupply>& supplies);
// The first description whose "Transport Type" is "Internal"; null when none.
PXRef<PXDictionary> internalPowerSource(const std::vector<PXRef<PXDictionary>>& descriptions);

}  // namespace pxkit::internal
