// Power supplies → power-source descriptions, on attribute text.
#include "system/internal/PowerSupply.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace pxkit::internal;

namespace {

PowerSupply supply(std::string name, PowerSupply::Attrs attributes, std::string path = "/sys/devices/x") {
  return PowerSupply{std::move(name), std::move(path), {attributes.begin(), attributes.end()}};
}

std::string text(const PXRef<PXDictionary>& d, std::string_view key) {
  return d ? std::string(d->objectForKey(key).stringValue()) : std::string("<none>");
}

}  // namespace

TEST(PowerSupply, StateOfTheBuiltInBattery) {
  struct Case {
    const char* what;
    std::vector<PowerSupply> supplies;
    const char* state;  // of the internal source; "<none>" when there is none
  };
  const std::vector<Case> cases = {
      {"no supplies at all", {}, "<none>"},
      {"line power only (a desktop)", {supply("AC", {{"type", "Mains"}, {"online", "1"}})}, "<none>"},
      {"on mains",
       {supply("AC", {{"type", "Mains"}, {"online", "1"}}),
        supply("BAT0", {{"type", "Battery"}, {"status", "Charging"}})},
       "AC Power"},
      {"unplugged",
       {supply("AC", {{"type", "Mains"}, {"online", "0"}}),
        supply("BAT0", {{"type", "Battery"}, {"status", "Discharging"}})},
       "Battery Power"},
      {"full, no adapter device", {supply("BAT0", {{"type", "Battery"}, {"status", "Full"}})}, "AC Power"},
      {"not charging at a threshold",
       {supply("BAT0", {{"type", "Battery"}, {"status", "Not charging"}})},
       "AC Power"},
      {"USB-C line power online",
       {supply("ucsi", {{"type", "USB_PD"}, {"online", "1"}}),
        supply("BAT0", {{"type", "Battery"}, {"status", "Discharging"}})},
       "AC Power"},
      {"battery removed",
       {supply("BAT0", {{"type", "Battery"}, {"present", "0"}, {"status", "Unknown"}})},
       "Off Line"},
      {"unknown status, no line power",
       {supply("BAT0", {{"type", "Battery"}, {"status", "Unknown"}})},
       "Battery Power"},
      {"garbage online value counts as offline",
       {supply("AC", {{"type", "Mains"}, {"online", "yes"}}),
        supply("BAT0", {{"type", "Battery"}, {"status", "Discharging"}})},
       "Battery Power"},
      {"a peripheral battery is not built in",
       {supply("hid-mouse", {{"type", "Battery"}, {"scope", "Device"}, {"status", "Discharging"}})},
       "<none>"},
      {"a UPS listed first is skipped",
       {supply("ups", {{"type", "UPS"}, {"status", "Discharging"}}),
        supply("BAT1", {{"type", "Battery"}, {"scope", "System"}, {"status", "Charging"}})},
       "AC Power"},
  };
  for (const Case& c : cases) {
    PXRef<PXDictionary> internal = internalPowerSource(powerSourceDescriptions(c.supplies));
    EXPECT_EQ(text(internal, kPowerSourceStateKey), c.state) << c.what;
  }
}

TEST(PowerSupply, DescriptionFields) {
  PXRef<PXDictionary> d = powerSourceDescription(supply("BAT0", {{"type", "Battery"},
                                                                 {"status", "Discharging"},
                                                                 {"capacity", "81"},
                                                                 {"time_to_empty_now", "3720"}}),
                                                 false);
  ASSERT_TRUE(d);
  EXPECT_EQ(text(d, "Name"), "BAT0");
  EXPECT_EQ(text(d, "Type"), "InternalBattery");
  EXPECT_EQ(text(d, "Transport Type"), "Internal");
  EXPECT_EQ(d->objectForKey("Current Capacity").intValue(), 81);
  EXPECT_EQ(d->objectForKey("Max Capacity").intValue(), 100);
  EXPECT_EQ(d->objectForKey("Time to Empty").intValue(), 62);
  EXPECT_TRUE(d->objectForKey("Is Present").boolValue());
  EXPECT_FALSE(d->objectForKey("Is Charging").boolValue());

  // Out-of-range or malformed numbers are left out, not guessed.
  PXRef<PXDictionary> odd = powerSourceDescription(
      supply("BAT0", {{"type", "Battery"}, {"capacity", "250"}, {"time_to_empty_now", "-"}}), false);
  ASSERT_TRUE(odd);
  EXPECT_FALSE(odd->objectForKey("Current Capacity"));
  EXPECT_FALSE(odd->objectForKey("Time to Empty"));
  // Line power is no power source.
  EXPECT_FALSE(powerSourceDescription(supply("AC", {{"type", "Mains"}, {"online", "1"}}), true));
}

TEST(PowerSupply, PeripheralTransportFromItsBus) {
  struct Case {
    const char* path;
    const char* transport;
  };
  for (const Case& c :
       std::vector<Case>{{"/sys/devices/pci0000:00/0000:00:14.0/usb1/1-2/hid/power_supply/m", "USB"},
                         {"/sys/devices/virtual/misc/uhid/bluetooth/power_supply/k", "Bluetooth"},
                         {"/sys/devices/platform/x/power_supply/p", "External"}}) {
    PXRef<PXDictionary> d =
        powerSourceDescription(supply("p", {{"type", "Battery"}, {"scope", "Device"}}, c.path), false);
    ASSERT_TRUE(d);
    EXPECT_EQ(text(d, "Transport Type"), c.transport) << c.path;
    EXPECT_EQ(text(d, "Type"), "Battery");
  }
}
