// The device-registry provider on a umockdev testbed: two PCI devices and DMI.
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
    dmi = bed.addDevice("dmi", "id", "", {{"product_name", "Notebook 14"}});
    // 0x10de = 4318, 0x8086 = 32902.
    gpu = bed.addDevice("pci", "0000:01:00.0", "",
                        {{"vendor", "0x10de"}, {"device", "0x1c82"}, {"class", "0x030000"}});
    nic = bed.addDevice("pci", "0000:00:19.0", "",
                        {{"vendor", "0x8086"}, {"device", "0x1502"}, {"class", "0x020000"}});
  }
};

PXValue argumentsFrom(const std::string& text) {
  pxkit::rules::QuoteStack quotes;
  return pxkit::rules::ruleCallArgument(pxkit::rules::scanRuleCall("${iokit(" + text + ")}", 2, quotes));
}

TEST(PXRuleCheckerIOKitFunction, AnswersExistenceAndPropertyValues) {
  PX_SKIP_WITHOUT_UMOCKDEV();
  Machine machine;
  PXRef<PXRuleCheckerIOKitFunction> iokit = PXRuleCheckerIOKitFunction::function();
  const std::string pci = "matchStrIOProviderClass=IOPCIDevice;";
  const std::pair<std::string, PXValue> rows[] = {
      {"do=exists;" + pci + "meetIntvendor-id=4318", true},
      {"do=exists;" + pci + "meetIntvendor-id=4098", false},
      {"do=exists;" + pci + "meetIntvendor-id=4318abc", true},  // the integer value of a text: its digits
      {"do=exists;" + pci + "meetStrvendor-id=4318", false},    // a string never equals the number
      // Every meeting key must hold; a missing property is a miss.
      {"do=exists;" + pci + "meetIntvendor-id=32902;meetIntdevice-id=5378", true},
      {"do=exists;matchStrIOProviderClass=IOPlatformExpertDevice", true},
      {"do=exists", true},  // an empty matching dictionary
      {"do=propertyValue;matchStrIOProviderClass=IOPlatformExpertDevice;propertyName=model", "Notebook 14"},
      {"do=propertyValue;" + pci + "meetIntvendor-id=32902;propertyName=device-id", 0x1502},
      {"do=propertyValue;" + pci + "propertyName=no-such-property", PXValue()},
      {"do=propertyValue;" + pci, PXValue()},
  };
  for (const auto& [arguments, expected] : rows) {
    SCOPED_TRACE(arguments);
    EXPECT_EQ(iokit->resultFor(argumentsFrom(arguments), false), expected);
    EXPECT_EQ(iokit->resultFor(argumentsFrom(arguments), true), expected);  // the flag changes nothing
  }
  EXPECT_FALSE(iokit->resultFor(PXValue("exists"), false));
  // Without a meeting dictionary: the first in sysfs path order.
  auto byClass = PXDictionary::dictionaryWithEntries({{"IOProviderClass", "IOPCIDevice"}});
  PXRef<PXIOService> first = PXRuleCheckerIOKitFunction::firstServiceMatching(byClass, {});
  EXPECT_EQ(first ? first->sysfsPath() : "", machine.nic);
  EXPECT_FALSE(PXRuleCheckerIOKitFunction::firstServiceMatching({}, {}));
  EXPECT_FALSE(PXRuleCheckerIOKitFunction::firstServiceMatching(
      PXDictionary::dictionaryWithEntries({{"IOProviderClass", "IOUSBDevice"}}), {}));
}

}  // namespace
