// The version provider against fixture system trees (tests/rules/fixtures)
// and applications installed in a temporary XDG home.
#include <gtest/gtest.h>
#include <pxkit/objects/PXDictionary.h>
#include <pxkit/platform/PXBundle.h>
#include <pxkit/rules/PXRuleCheckerVersionFunction.h>

#include <optional>
#include <string>

#include "rules/internal/RuleCallSyntax.h"
#include "rules/internal/SystemFacts.h"
#include "support/PXTempHome.h"
#include "support/PXTestPaths.h"

namespace {

std::string fixture(const char* name) {
  return PXTestSourceDir() + "/tests/rules/fixtures/" + name;
}

// What a provider is handed for "${version(<text>)}": "os" stays a string,
// "of=os;lessThan=13" becomes a dictionary.
PXValue argumentFrom(std::string_view text) {
  pxkit::rules::QuoteStack quotes;
  return pxkit::rules::ruleCallArgument(
      pxkit::rules::scanRuleCall("${v(" + std::string(text) + ")}", 2, quotes));
}

TEST(PXRuleCheckerVersionFunction, ReadsOsReleaseAssignments) {
  struct Row {
    const char* text;
    const char* key;
    std::optional<std::string> value;
  };
  const Row rows[] = {
      {"VERSION_ID=12\n", "VERSION_ID", "12"},
      {"VERSION_ID=\"22.04\"\n", "VERSION_ID", "22.04"},
      {"VERSION_ID='11.7'", "VERSION_ID", "11.7"},
      {"  VERSION_ID=\"a \\\"b\\\" \\$c\"  \n", "VERSION_ID", "a \"b\" $c"},
      {"# VERSION_ID=1\nID=x\n", "VERSION_ID", std::nullopt},
      {"VERSION_ID=1\nVERSION_ID=2\n", "VERSION_ID", "2"},   // the last assignment wins
      {"VERSION_ID=one two\n", "VERSION_ID", std::nullopt},  // unquoted white space is malformed
      {"VERSION_ID=\"open\n", "VERSION_ID", std::nullopt},
      {"VERSION_IDX=1\nXVERSION_ID=2\n", "VERSION_ID", std::nullopt},
      {"VERSION_ID=\r\n", "VERSION_ID", ""},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.text);
    EXPECT_EQ(pxkit::rules::osReleaseValue(row.text, row.key), row.value);
  }
}

TEST(PXRuleCheckerVersionFunction, SplitsModelIdentifiersAtTheirFirstComma) {
  struct Row {
    const char* model;
    const char* name;  // null: no parts
    const char* version;
  };
  const Row rows[] = {
      {"MacBookPro8,1", "MacBookPro", "8,1"},
      {"iMac12,2", "iMac", "12,2"},
      {"Macmini,1", "Macmini", ",1"},
      {"Xy1,2,3", "Xy", "1,2,3"},
      {"X1,2", nullptr, nullptr},
      {"Unknown", nullptr, nullptr},
      {"8,1", nullptr, nullptr},   // the walk reaches the first character,
      {"a8,1", nullptr, nullptr},  // which is never examined, even when it would end the name
      {"ab8,1", "ab", "8,1"},
      {",1", nullptr, nullptr},
      {"", nullptr, nullptr},
      {"Standard PC (Q35 + ICH9, 2009)", "Standard PC (Q35 + ICH", "9, 2009)"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.model);
    std::optional<pxkit::rules::ModelParts> parts = pxkit::rules::splitModelIdentifier(row.model);
    ASSERT_EQ(parts.has_value(), row.name != nullptr);
    if (parts) {
      EXPECT_EQ(parts->name, row.name);
      EXPECT_EQ(parts->version, row.version);
    }
  }
}

struct Case {
  const char* argument;
  const char* typed;  // the "%@" text of the typed answer; "(null)" for absent
  const char* text;   // the answer with returnString; null: absent even then
};

void expectAnswers(PXRuleCheckerVersionFunction& function, std::initializer_list<Case> cases) {
  for (const Case& c : cases) {
    SCOPED_TRACE(c.argument);
    PXValue argument = argumentFrom(c.argument);
    PXValue typed = function.resultFor(argument, false);
    EXPECT_EQ(typed.description().str(), c.typed);
    PXValue text = function.resultFor(argument, true);
    if (!c.text) {
      EXPECT_FALSE(text);
      continue;
    }
    EXPECT_TRUE(text.isString());
    EXPECT_EQ(text.stringValue(), c.text);
  }
}

TEST(PXRuleCheckerVersionFunction, AnswersFromAMachineWithDmi) {
  PXTempHome home;
  PXRuleCheckerVersionFunction function(fixture("dmi"));
  EXPECT_EQ(function.osRelease(), "12");
  EXPECT_EQ(function.kernelRelease(), "6.1.0-18-amd64");
  expectAnswers(function, {
                              {"os", "12", "12"},
                              {"kernel", "6.1.0-18-amd64", "6.1.0-18-amd64"},
                              {"of=os", "12", "12"},
                              {"computerIdentifier", "MacBookPro8,1", "MacBookPro8,1"},
                              {"computerModel", "MacBookPro", "MacBookPro"},
                              {"computerVersion", "8,1", "8,1"},
                              {"computerVersionMajor", "8", "8"},
                              {"computerVersionMinor", "1", "1"},
                              {"computer", "(null)", "(null)"},
                              {"computerSomethingElse", "(null)", "(null)"},
                              // Comparisons make true when they hold, and leave the answer otherwise.
                              {"of=os;greaterThan=11", "1", "1"},
                              {"of=os;greaterThan=12", "12", "12"},
                              {"of=os;lessThan=12.1", "1", "1"},
                              {"of=os;lessThan=4", "12", "12"},
                              {"of=os;equalTo=12.0", "1", "1"},  // "12.0" is "12"
                              {"of=os;equalTo=12.0.0", "12", "12"},
                              {"of=os;lessThan=4;greaterThan=11", "1", "1"},  // an OR
                              {"of=os;equalTo", "1", "1"},                    // against nothing: the same
                              {"of=computerVersionMajor;greaterThan=7", "1", "1"},
                              {"of=kernel;greaterThan=6.1", "1", "1"},
                              {"of=nosuch;greaterThan=1", "(null)", "(null)"},  // nothing to compare
                              {"lessThan=99", "(null)", "(null)"},              // no subject
                          });
}

TEST(PXRuleCheckerVersionFunction, AnswersFromADeviceTreeAndFromAMachineThatSaysNothing) {
  PXTempHome home;
  PXRuleCheckerVersionFunction deviceTree(fixture("devicetree"));
  expectAnswers(deviceTree, {
                                {"os", "11.7", "11.7"},
                                {"kernel", "(null)", "(null)"},  // a fixture root never asks the real kernel
                                {"computerIdentifier", "Raspberry Pi 4 Model B Rev 1.4",
                                 "Raspberry Pi 4 Model B Rev 1.4"},
                                {"computerModel", "(null)", "(null)"},  // no comma
                                {"computerVersionMajor", "(null)", "(null)"},
                            });
  PXRuleCheckerVersionFunction nameless(fixture("dmi-nameless"));
  expectAnswers(nameless, {
                              {"computerIdentifier", "(null)", "(null)"},
                              {"computerModel", "(null)", "(null)"},
                          });
  PXRuleCheckerVersionFunction bare(fixture("bare"));
  EXPECT_FALSE(bare.osRelease());  // no VERSION_ID
  // No description of the machine: nothing, comparisons or not, text or not.
  expectAnswers(bare, {
                          {"os", "(null)", "(null)"},
                          {"computerIdentifier", "(null)", nullptr},
                          {"of=computerModel;equalTo", "(null)", nullptr},
                      });
}

TEST(PXRuleCheckerVersionFunction, TheRunningSystemHasAKernelRelease) {
  PXTempHome home;
  PXRuleCheckerVersionFunction function;
  ASSERT_TRUE(function.kernelRelease());
  EXPECT_FALSE(function.kernelRelease().empty());
  EXPECT_TRUE(function.resultFor("kernel", false).isEqual(PXValue(function.kernelRelease())));
}

TEST(PXRuleCheckerVersionFunction, AnswersInstalledApplicationsAndTheHost) {
  PXTempHome home;
  home.writeFile(home.systemDataDir() + "/applications/org.example.Editor.desktop",
                 "[Desktop Entry]\nType=Application\nName=Text Editor\nExec=sh %F\n");
  home.writeFile(
      home.systemDataDir() + "/metainfo/org.example.Editor.metainfo.xml",
      "<component><id>org.example.Editor</id><releases>"
      "<release version=\"3.9.1\"/><release version=\"3.10\"/><release version=\"4.0\" type=\"development\"/>"
      "</releases></component>");
  home.writeFile(home.systemDataDir() + "/applications/org.example.Viewer.desktop",
                 "[Desktop Entry]\nType=Application\nName=Viewer\nExec=viewer\n");
  ASSERT_TRUE(PXBundle::setMainBundleIdentity("org.example.Host", "2.4", "2401"));

  PXRuleCheckerVersionFunction function(fixture("dmi"));
  EXPECT_EQ(function.hostApplicationVersion(), "2401");
  EXPECT_EQ(function.hostApplicationVersionShort(), "2.4");
  expectAnswers(function, {
                              {"org.example.Editor", "3.10", "3.10"},
                              {"AppName.Text Editor", "3.10", "3.10"},
                              {"AppName.text editor", "(null)", "(null)"},
                              {"of=application;bundleID=org.example.Editor", "3.10", "3.10"},
                              {"of=application;bundleID=org.example.Editor;useShortVersion", "3.10", "3.10"},
                              {"of=application;bundleID=org.example.Editor;greaterThan=3.9.5", "1", "1"},
                              {"of=application;bundleID=org.example.Editor;lessThan=3.9.5", "3.10", "3.10"},
                              {"of=application", "(null)", "(null)"},
                              // Options name the application only through "application".
                              {"of=org.example.Editor", "(null)", "(null)"},
                              {"org.example.Viewer", "(null)", "(null)"},  // installed, no known version
                              {"org.example.Missing", "(null)", "(null)"},
                              {"hostApplication", "2401", "2401"},
                              {"hostApplicationShort", "2.4", "2.4"},
                              {"of=hostApplicationShort;greaterThan=2.3.9", "1", "1"},
                          });
  // Absent and empty arguments answer nothing.
  EXPECT_FALSE(function.resultFor({}, false));
  EXPECT_EQ(function.resultFor({}, true).stringValue(), "(null)");
  EXPECT_FALSE(function.resultFor(PXValue(PXDictionary::dictionary()), false));
  EXPECT_FALSE(function.resultFor(7, false));
}

}  // namespace
