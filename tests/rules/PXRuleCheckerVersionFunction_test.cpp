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

TEST(PXRuleCheckerVersionFunction, ReadsOsReleaseAndSplitsModelIdentifiers) {
  const std::pair<const char*, std::optional<std::string>> assignments[] = {
      {"VERSION_ID=12\n", "12"},
      {"VERSION_ID=\"22.04\"\n", "22.04"},
      {"VERSION_ID='11.7'", "11.7"},
      {"  VERSION_ID=\"a \\\"b\\\" \\$c \\x\"  \n", "a \"b\" $c \\x"},
      {"# VERSION_ID=1\nID=x\n", std::nullopt},
      {"VERSION_ID=1\nVERSION_ID=2\n", "2"},   // the last assignment wins
      {"VERSION_ID=one two\n", std::nullopt},  // unquoted white space is malformed
      {"VERSION_ID=\"open\n", std::nullopt},
      {"VERSION_IDX=1\nXVERSION_ID=2\n", std::nullopt},
      {"VERSION_ID=\r\n", ""},
  };
  for (const auto& [text, value] : assignments)
    EXPECT_EQ(pxkit::rules::osReleaseValue(text, "VERSION_ID"), value) << text;
  // "name|version"; "" for no parts. The walk back from the comma never examines
  // the first character, even when it would end the name.
  const std::pair<const char*, const char*> models[] = {
      {"MacBookPro8,1", "MacBookPro|8,1"},
      {"Macmini,1", "Macmini|,1"},
      {"Xy1,2,3", "Xy|1,2,3"},
      {"X1,2", ""},
      {"Unknown", ""},
      {"8,1", ""},
      {"a8,1", ""},
      {"ab8,1", "ab|8,1"},
      {",1", ""},
      {"", ""},
      {"Standard PC (Q35 + ICH9, 2009)", "Standard PC (Q35 + ICH|9, 2009)"},
  };
  for (const auto& [model, expected] : models) {
    std::optional<pxkit::rules::ModelParts> parts = pxkit::rules::splitModelIdentifier(model);
    EXPECT_EQ(parts ? parts->name + "|" + parts->version : "", expected) << model;
  }
}

// Each row: the call's argument text, and the answer's "%@" text, typed and as
// text alike ("(null)" for absent); `textAbsent`: absent even with returnString.
struct Case {
  const char* argument;
  const char* answer;
  bool textAbsent = false;
};

void expectAnswers(PXRuleCheckerVersionFunction& function, std::initializer_list<Case> cases) {
  for (const Case& c : cases) {
    SCOPED_TRACE(c.argument);
    pxkit::rules::QuoteStack quotes;
    const PXValue argument = pxkit::rules::ruleCallArgument(
        pxkit::rules::scanRuleCall("${v(" + std::string(c.argument) + ")}", 2, quotes));
    EXPECT_EQ(function.resultFor(argument, false).description().str(), c.answer);
    const PXValue text = function.resultFor(argument, true);
    EXPECT_EQ(text.isString() ? text.stringValue() : "<not text>", c.textAbsent ? "<not text>" : c.answer);
  }
}

TEST(PXRuleCheckerVersionFunction, AnswersFromFixtureMachines) {
  PXTempHome home;
  PXRuleCheckerVersionFunction dmi(fixture("dmi"));
  EXPECT_EQ(dmi.kernelRelease(), "6.1.0-18-amd64");
  expectAnswers(dmi, {
                         {"os", "12"},
                         {"kernel", "6.1.0-18-amd64"},
                         {"of=os", "12"},
                         {"computerIdentifier", "MacBookPro8,1"},
                         {"computerModel", "MacBookPro"},
                         {"computerVersion", "8,1"},
                         {"computerVersionMajor", "8"},
                         {"computerVersionMinor", "1"},
                         {"computer", "(null)"},
                         {"computerSomethingElse", "(null)"},
                         // Comparisons make true when they hold, and leave the answer otherwise.
                         {"of=os;greaterThan=11", "1"},
                         {"of=os;greaterThan=12", "12"},
                         {"of=os;lessThan=12.1", "1"},
                         {"of=os;lessThan=4", "12"},
                         {"of=os;equalTo=12.0", "1"},  // "12.0" is "12"
                         {"of=os;equalTo=12.0.0", "12"},
                         {"of=os;lessThan=4;greaterThan=11", "1"},  // an OR
                         {"of=os;equalTo", "1"},                    // against nothing: the same
                         {"of=computerVersionMajor;greaterThan=7", "1"},
                         {"of=nosuch;greaterThan=1", "(null)"},  // nothing to compare
                         {"lessThan=99", "(null)"},              // no subject
                     });
  PXRuleCheckerVersionFunction deviceTree(fixture("devicetree"));
  expectAnswers(deviceTree, {
                                {"os", "11.7"},
                                {"kernel", "(null)"},  // a fixture root never asks the real kernel
                                {"computerIdentifier", "Raspberry Pi 4 Model B Rev 1.4"},
                                {"computerModel", "(null)"},  // no comma
                            });
  PXRuleCheckerVersionFunction nameless(fixture("dmi-nameless"));
  expectAnswers(nameless, {{"computerIdentifier", "(null)"}});
  PXRuleCheckerVersionFunction bare(fixture("bare"));
  EXPECT_FALSE(bare.osRelease());  // no VERSION_ID
  // No description of the machine: nothing, comparisons or not, text or not.
  expectAnswers(bare, {{"os", "(null)"},
                       {"computerIdentifier", "(null)", true},
                       {"of=computerModel;equalTo", "(null)", true}});
  PXRuleCheckerVersionFunction running;
  ASSERT_FALSE(running.kernelRelease().empty());
  EXPECT_TRUE(running.resultFor("kernel", false).isEqual(PXValue(running.kernelRelease())));
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
  expectAnswers(function, {
                              {"org.example.Editor", "3.10"},
                              {"AppName.Text Editor", "3.10"},
                              {"AppName.text editor", "(null)"},
                              {"of=application;bundleID=org.example.Editor;useShortVersion", "3.10"},
                              {"of=application;bundleID=org.example.Editor;greaterThan=3.9.5", "1"},
                              {"of=application;bundleID=org.example.Editor;lessThan=3.9.5", "3.10"},
                              {"of=application", "(null)"},
                              // Options name the application only through "application".
                              {"of=org.example.Editor", "(null)"},
                              {"org.example.Viewer", "(null)"},  // installed, no known version
                              {"org.example.Missing", "(null)"},
                              {"hostApplication", "2401"},
                              {"hostApplicationShort", "2.4"},
                              {"of=hostApplicationShort;greaterThan=2.3.9", "1"},
                          });
  // Absent and empty arguments answer nothing.
  EXPECT_FALSE(function.resultFor({}, false));
  EXPECT_EQ(function.resultFor({}, true).stringValue(), "(null)");
  EXPECT_FALSE(function.resultFor(PXValue(PXDictionary::dictionary()), false));
  EXPECT_FALSE(function.resultFor(7, false));
}

}  // namespace
