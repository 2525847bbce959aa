// The device-registry provider on a device testbed: two PCI devices of
// different makers and a machine description. Runs under umockdev-wrapper.
#include <gtest/gtest.h>
#include <pxkit/objects/PXDictionary.h>
#include <pxkit/rules/PXRuleCheckerIOKitFunction.h>

#include <string>

#include "rules/internal/RuleCallSyntax.h"
#include "support/PXUMockdevTestbed.h"

namespace {

struct Machine {
  PXUMockdevTestbed bed;
  std::string dmi, gpu, nic;

  Machine() {
    dmi = bed.addDevice("dmi", "id", "",
                        {{"product_name", "Notebook 14"}, {"sys_vendor", "Example Computers"}});
    // 0x10de = 4318, 0x8086 = 32902.
    gpu = bed.addDevice("pci", "0000:01:00.0", "",
                        {{"vendor", "0x10de"}, {"device", "0x1c82"}, {"class", "0x030000"}});
    nic = bed.addDevice("pci", "0000:00:19.0", "",
                        {{"vendor", "0x8086"}, {"device", "0x1502"}, {"class", "0x020000"}});
  }
};

// What a provider is handed for "${iokit(<text>)}".
PXValue argumentsFrom(const std::string& text) {
  pxkit::rules::QuoteStack quotes;
  return pxkit::rules::ruleCallArgument(pxkit::rules::scanRuleCall("${iokit(" + text + ")}", 2, quotes));
}

TEST(PXRuleCheckerIOKitFunction, AnswersExistenceAndPropertyValues) {
  PX_SKIP_WITHOUT_UMOCKDEV();
  Machine machine;
  PXRef<PXRuleCheckerIOKitFunction> iokit = PXRuleCheckerIOKitFunction::function();
  struct Row {
    const char* arguments;
    PXValue result;
  };
  const Row rows[] = {
      {"do=exists;matchStrIOProviderClass=IOPCIDevice;meetIntvendor-id=4318", PXValue(true)},
      {"do=exists;matchStrIOProviderClass=IOPCIDevice;meetIntvendor-id=32902", PXValue(true)},
      {"do=exists;matchStrIOProviderClass=IOPCIDevice;meetIntvendor-id=4098", PXValue(false)},
      // The integer value of a text: its leading digits.
      {"do=exists;matchStrIOProviderClass=IOPCIDevice;meetIntvendor-id=4318abc", PXValue(true)},
      // A string never equals the number property.
      {"do=exists;matchStrIOProviderClass=IOPCIDevice;meetStrvendor-id=4318", PXValue(false)},
      {"do=exists;matchStrIOProviderClass=IOPCIDevice;meetStrvendor=0x10de", PXValue(true)},
      // Every meeting key must hold; a missing property is a miss.
      {"do=exists;matchStrIOProviderClass=IOPCIDevice;meetIntvendor-id=4318;meetIntdevice-id=5378",
       PXValue(false)},
      {"do=exists;matchStrIOProviderClass=IOPCIDevice;meetIntvendor-id=32902;meetIntdevice-id=5378",
       PXValue(true)},
      {"do=exists;matchStrIOProviderClass=IOPCIDevice;meetStrno-such-property=x", PXValue(false)},
      {"do=exists;matchStrIOProviderClass=IOPlatformExpertDevice", PXValue(true)},
      {"do=exists;matchStrIOProviderClass=IOPMPowerSource", PXValue(false)},
      // Matching by a sysfs attribute.
      {"do=exists;matchStrvendor=0x10de", PXValue(true)},
      {"do=exists;matchStrvendor=0x1002", PXValue(false)},
      {"do=exists", PXValue(true)},  // an empty matching dictionary
      {"do=propertyValue;matchStrIOProviderClass=IOPlatformExpertDevice;propertyName=model",
       PXValue("Notebook 14")},
      {"do=propertyValue;matchStrIOProviderClass=IOPCIDevice;meetIntvendor-id=32902;propertyName=device-id",
       PXValue(0x1502)},
      {"do=propertyValue;matchStrIOProviderClass=IOPCIDevice;meetIntvendor-id=4098;propertyName=device-id",
       PXValue()},
      {"do=propertyValue;matchStrIOProviderClass=IOPCIDevice;propertyName=no-such-property", PXValue()},
      {"do=propertyValue;matchStrIOProviderClass=IOPCIDevice", PXValue()},
      {"do=remove;matchStrIOProviderClass=IOPCIDevice", PXValue()},
      {"do;matchStrIOProviderClass=IOPCIDevice", PXValue()},
      {"matchStrIOProviderClass=IOPCIDevice", PXValue()},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.arguments);
    EXPECT_EQ(iokit->resultFor(argumentsFrom(row.arguments), false), row.result);
    EXPECT_EQ(iokit->resultFor(argumentsFrom(row.arguments), true), row.result);  // the flag changes nothing
  }
  EXPECT_FALSE(iokit->resultFor(PXValue("exists"), false));
  EXPECT_FALSE(iokit->resultFor(PXValue(), false));
}

TEST(PXRuleCheckerIOKitFunction, FindsTheFirstServiceThatMeetsTheDictionary) {
  PX_SKIP_WITHOUT_UMOCKDEV();
  Machine machine;
  auto pci = PXDictionary::dictionaryWithEntries({{"IOProviderClass", "IOPCIDevice"}});
  // Without a meeting dictionary, or with an empty one: the first in sysfs path order.
  for (const PXRef<PXDictionary>& meeting : {PXRef<PXDictionary>(), PXDictionary::dictionary()}) {
    PXRef<PXIOService> first = PXRuleCheckerIOKitFunction::firstServiceMatching(pci, meeting);
    ASSERT_TRUE(first);
    EXPECT_EQ(first->sysfsPath(), machine.nic);
  }
  PXRef<PXIOService> gpu = PXRuleCheckerIOKitFunction::firstServiceMatching(
      pci, PXDictionary::dictionaryWithEntries({{"class", "0x030000"}}));
  ASSERT_TRUE(gpu);
  EXPECT_EQ(gpu->sysfsPath(), machine.gpu);
  EXPECT_FALSE(PXRuleCheckerIOKitFunction::firstServiceMatching({}, {}));
  EXPECT_FALSE(PXRuleCheckerIOKitFunction::firstServiceMatching(
      PXDictionary::dictionaryWithEntries({{"IOProviderClass", "IOUSBDevice"}}), {}));
}

}  // namespace
