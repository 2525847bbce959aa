// The version provider on fixture system trees and a temporary XDG home.
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
      {"VERSION_ID='11.7'", "11.7"},
      {"  VERSION_ID=\"a \\\"b\\\" \\$c \\x\"  \n", "a \"b\" $c \\x"},
      {"# VERSION_ID=1\nID=x\n", std::nullopt},
      {"VERSION_ID=one two\n", std::nullopt},  // unquoted white space is malformed
      {"VERSION_ID=\"open\n", std::nullopt},
      {"VERSION_ID=\r\n", ""},
  };
  for (const auto& [text, value] : assignments)
    EXPECT_EQ(pxkit::rules::osReleaseValue(text, "VERSION_ID"), value) << text;
  // "name|version"; the walk back from the comma never examines the first character.
  const std::pair<const char*, const char*> models[] = {
      {"MacBookPro8,1", "MacBookPro|8,1"},
      {"Macmini,1", "Macmini|,1"},
      {"a8,1", ""},
      {"ab8,1", "ab|8,1"},
      {"Standard PC (Q35 + ICH9, 2009)", "Standard PC (Q35 + ICH|9, 2009)"},
  };
  for (const auto& [model, expected] : models) {
    std::optional<pxkit::rules::ModelParts> parts = pxkit::rules::splitModelIdentifier(model);
    EXPECT_EQ(parts ? parts->name + "|" + parts->version : "", expected) << model;
  }
}

// The call's argument, the answer's "%@" text typed and as text; `textAbsent`: no text either.
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
                         {"kernel", "6.1.0-18-amd64"},
                         {"computerIdentifier", "MacBookPro8,1"},
                         {"computerVersion", "8,1"},
                         {"computerVersionMajor", "8"},
                         {"computer", "(null)"},
                         // Comparisons make true when they hold, and leave the answer otherwise.
                         {"of=os;greaterThan=12", "12"},
                         {"of=os;equalTo=12.0", "1"},  // "12.0" is "12"
                         {"of=os;equalTo=12.0.0", "12"},
                         {"of=os;lessThan=4;greaterThan=11", "1"},  // an OR
                         {"of=os;equalTo", "1"},                    // against nothing: the same
                         {"of=nosuch;greaterThan=1", "(null)"},     // nothing to compare
                         {"lessThan=99", "(null)"},                 // no subject
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
  // No description of the machine: nothing, comparisons or not, text or not.
  expectAnswers(bare, {{"os", "(null)"},
                       {"computerIdentifier", "(null)", true},
                       {"of=computerModel;equalTo", "(null)", true}});
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
                              {"of=application;bundleID=org.example.Editor;useShortVersion", "3.10"},
                              {"of=application;bundleID=org.example.Editor;greaterThan=3.9.5", "1"},
                              // Options name the application only through "application".
                              {"of=org.example.Editor", "(null)"},
                              {"org.example.Viewer", "(null)"},  // installed, no known version
                              {"hostApplicationShort", "2.4"},
                              {"of=hostApplicationShort;greaterThan=2.3.9", "1"},
                          });
  EXPECT_FALSE(function.resultFor({}, false));
  EXPECT_EQ(function.resultFor({}, true).stringValue(), "(null)");
  EXPECT_FALSE(function.resultFor(PXValue(PXDictionary::dictionary()), false));
}

}  // namespace
