// Power supplies → power-source descriptions, on attribute text.
#include "system/internal/PowerSupply.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>

using namespace pxkit::internal;

namespace {

// "NAME:key=value,key=value;NAME:..." ("path=" sets the sysfs path).
std::vector<PowerSupply> supplies(const std::string& text) {
  std::vector<PowerSupply> out;
  std::istringstream items(text);
  for (std::string item; std::getline(items, item, ';');) {
    PowerSupply supply{item.substr(0, item.find(':')), "/sys/devices/x", {}};
    std::istringstream pairs(item.substr(item.find(':') + 1));
    for (std::string pair; std::getline(pairs, pair, ',');) {
      const std::string key = pair.substr(0, pair.find('='));
      (key == "path" ? supply.sysfsPath : supply.attributes[key]) = pair.substr(pair.find('=') + 1);
    }
    out.push_back(supply);
  }
  return out;
}

// Each as "type/transport/state/[capacity/max/minutes/]" and its present,
// charging and charged flags; then the built-in source's name.
std::string summary(const std::string& text) {
  const std::vector<PXRef<PXDictionary>> all = powerSourceDescriptions(supplies(text));
  std::string out;
  for (const PXRef<PXDictionary>& d : all) {
    for (std::string_view key : {kPowerSourceTypeKey, kPowerSourceTransportTypeKey, kPowerSourceStateKey})
      out += std::string(d->objectForKey(key).stringValue()) + "/";
    for (std::string_view key :
         {kPowerSourceCurrentCapacityKey, kPowerSourceMaxCapacityKey, kPowerSourceTimeToEmptyKey}) {
      if (PXValue value = d->objectForKey(key)) out += value.description().str() + "/";
    }
    for (std::string_view key :
         {kPowerSourceIsPresentKey, kPowerSourceIsChargingKey, kPowerSourceIsChargedKey})
      out += d->objectForKey(key).boolValue() ? "1" : "0";
    out += "; ";
  }
  const PXRef<PXDictionary> internal = internalPowerSource(all);
  return out + (internal ? std::string(internal->objectForKey(kPowerSourceNameKey).stringValue()) : "-");
}

}  // namespace

TEST(PowerSupply, DescriptionsAndTheBuiltInBattery) {
  const std::pair<const char*, const char*> rows[] = {
      {"", "-"},
      {"AC:type=Mains,online=1;BAT0:type=Battery,status=Charging",
       "InternalBattery/Internal/AC Power/110; BAT0"},
      {"AC:type=Mains,online=0;BAT0:type=Battery,status=Discharging,capacity=81,time_to_empty_now=3720",
       "InternalBattery/Internal/Battery Power/81/100/62/100; BAT0"},
      // Full or held at a threshold: on line power, with or without an adapter device.
      {"BAT0:type=Battery,status=Full", "InternalBattery/Internal/AC Power/101; BAT0"},
      {"BAT0:type=Battery,status=Not charging", "InternalBattery/Internal/AC Power/100; BAT0"},
      {"ucsi:type=USB_PD,online=1;BAT0:type=Battery,status=Discharging",
       "InternalBattery/Internal/AC Power/100; BAT0"},
      {"BAT0:type=Battery,present=0,status=Unknown", "InternalBattery/Internal/Off Line/000; BAT0"},
      // Out-of-range or malformed numbers are left out, not guessed.
      {"BAT0:type=Battery,capacity=250,time_to_empty_now=-",
       "InternalBattery/Internal/Battery Power/100; BAT0"},
      // Peripherals: their bus from their path; never the built-in source.
      {"m:type=Battery,scope=Device,status=Discharging,path=/sys/devices/pci0000:00/0000:00:14.0/usb1/1-2/m",
       "Battery/USB/Battery Power/100; -"},
      {"k:type=Battery,scope=Device,path=/sys/devices/virtual/misc/uhid/bluetooth/power_supply/k",
       "Battery/Bluetooth/AC Power/100; -"},
      {"ups:type=UPS,status=Discharging;BAT1:type=Battery,scope=System,status=Charging",
       "UPS/External/Battery Power/100; InternalBattery/Internal/AC Power/110; BAT1"},
  };
  for (const auto& [text, expected] : rows) EXPECT_EQ(summary(text), expected) << text;
}
