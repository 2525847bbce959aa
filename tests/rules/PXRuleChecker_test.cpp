// The rule checker's registry, computeFunction, key lookup and runCheck.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pxkit/rules/PXRuleChecker.h>

#include <optional>
#include <string>
#include <vector>

#include "support/PXLogCapture.h"

namespace {

using ::testing::IsEmpty;

// A provider that records the "%@" text of what it is asked ("<absent>" for none) and answers `answer`.
PXRef<PXRuleCheckerFunction> recorder(const char* identifier, const char* prefix, PXValue answer,
                                      std::vector<std::string>* asked) {
  return PXRuleCheckerFunction::functionWithFunctionID(
      identifier, prefix ? PXString(prefix) : PXString(),
      [=](PXRuleCheckerFunction*, const PXValue& argument, bool returnString) {
        asked->push_back((argument ? argument.description().str() : "<absent>") + (returnString ? "!" : ""));
        return answer;
      });
}

// The default providers, fresh for each checker, by identifier and prefix.
TEST(PXRuleChecker, DefaultFunctionsAndTheFirstProviderOfAnIdentifierOrPrefixWins) {
  PXRuleChecker* shared = PXRuleChecker::sharedChecker();
  std::string names;
  for (const PXValue& value : *shared->functions()) {
    const auto* function = static_cast<const PXRuleCheckerFunction*>(value.objectPointer());
    names += function->functionID().str() + "/" + function->functionKeyPathPrefix().str() + " ";
  }
  EXPECT_EQ(names, "version/version application/application filesystem/ sysctl/sysctl iokit/ ");
  EXPECT_NE(PXRuleChecker::defaultFunctions()->objectAtIndex(0).objectPointer(),
            shared->functions()->objectAtIndex(0).objectPointer());

  std::vector<std::string> asked;
  PXRef<PXRuleChecker> checker = PXRuleChecker::ruleCheckerWithDefaultFunctions(false);
  checker->addFunction(recorder("x", "y", "first", &asked));
  checker->addFunctions(
      *PXArray::arrayWithObjects({PXValue(recorder("x", "y", "second", &asked)), PXValue("not a provider"),
                                  PXValue(recorder("z", "x", "z", &asked))}));
  checker->addFunction({});
  EXPECT_EQ(checker->computeFunction("${x(a)}").stringValue(), "first");
  EXPECT_EQ(checker->computeFunction("y.anything.at.all").stringValue(), "first");
  // Routing by prefix only: identifier "x" is not a prefix, prefix "x" belongs to "z".
  EXPECT_EQ(checker->computeFunction("x.anything").stringValue(), "z");
  // The rest after the first dot, dots kept.
  EXPECT_EQ(asked, (std::vector<std::string>{"a", "anything.at.all", "anything"}));
}

TEST(PXRuleChecker, ComputeFunctionAnswersOneCallOrOneKeyPath) {
  std::vector<std::string> asked;
  PXRef<PXRuleChecker> checker = PXRuleChecker::ruleCheckerWithDefaultFunctions(false);
  checker->addFunction(recorder("seven", "seven", 7, &asked));
  checker->addFunction(recorder("nothing", nullptr, PXValue(), &asked));
  const std::tuple<const char*, PXValue, const char*> rows[] = {
      // expression, value, the line logged
      {"$ before ${seven(a=1)} after", 7, nullptr},  // text around the call is dropped
      {"${seven} ${seven}", PXValue(), "Error processing function (more than one result): ${seven} ${seven}"},
      {"${nothing} ${seven}", 7, nullptr},  // one answer among absent ones is still one result
      {" ${seven}", PXValue(), nullptr},    // not beginning with "$": a key path, and an unknown one
      {"${seven", PXValue(), "Unterminated function: ${seven"},
  };
  for (const auto& [expression, expected, logged] : rows) {
    SCOPED_TRACE(expression);
    PXLogCapture log;
    PXValue value = checker->computeFunction(expression);
    EXPECT_TRUE(value.isEqual(expected)) << value.description().str();
    EXPECT_EQ(log.lines(), logged ? std::vector<std::string>{logged} : std::vector<std::string>());
  }
}

// Key paths go to providers, then fixed values, then the checker's own keys;
// what a rule raises is caught, logged and handed out.
TEST(PXRuleChecker, RunCheckAnswersRulesAndCatchesWhatTheyRaise) {
  PXRef<PXRuleChecker> checker = PXRuleChecker::ruleCheckerWithDefaultFunctions(false);
  checker->addFunction(PXRuleCheckerFunction::functionWithFunctionID(
      "version", "version",
      [](PXRuleCheckerFunction*, const PXValue& argument, bool returnString) -> PXValue {
        if (argument.stringValue() == "os") return "10.7.4";
        if (argument.stringValue() == "cpus") return returnString ? PXValue("4") : PXValue(4);
        return {};
      }));
  checker->addFunction(PXRuleCheckerFunction::functionWithFunctionID("nothing", {}, nullptr));
  PXRef<PXMutableDictionary> fixed = PXMutableDictionary::dictionary();
  fixed->setObject("abc", "name");
  fixed->setObject("dotted", "a.b");
  fixed->setObject("shadowed", "version.os");
  fixed->setObject(PXValue::null(), "nothing");
  checker->setKvoValues(fixed);
  struct Row {
    const char* rule;
    bool answer;
    const char* name = nullptr;  // of the exception; null for none
    const char* reason = "";     // a part of its reason
  };
  const Row rows[] = {
      {"version.os BEGINSWITH '10.7' AND version.cpus > 2 AND ${version(os)} == '10.7.4'", true},
      {"${version(cpus)} == 4", true},  // typed: the number 4, not the text "4"
      {"${nothing} == nil AND version.missing == nil AND nothing == nil", true},  // absent: no error
      {"name LIKE 'a?c' AND a.b == 'dotted' AND functions.@count == 2", true},
      {"1 == 2 AND nosuch.key == 1", false},  // what is not evaluated cannot raise
      {"version.os ==", false, kPXInvalidArgumentException,
       "Unable to parse the format string \"version.os ==\""},
      {"nosuch.key == 1", false, kPXUndefinedKeyException,
       "valueForUndefinedKey:]: this class is not key value coding-compliant for the key nosuch."},
      {"version == 1", false, kPXUndefinedKeyException, "[<PXRuleChecker 0x"},  // a bare prefix
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.rule);
    PXLogCapture log;
    std::optional<PXException> error = PXException("stale", "from before");
    EXPECT_EQ(checker->runCheck(row.rule, &error), row.answer);
    if (!row.name) {
      EXPECT_FALSE(error) << error->description().str();
      EXPECT_THAT(log.lines(), IsEmpty());
      continue;
    }
    ASSERT_TRUE(error);
    EXPECT_EQ(error->name(), row.name);
    EXPECT_THAT(error->reason().str(), ::testing::HasSubstr(row.reason));
    const std::string caught =
        "-[PXRuleChecker runCheck:errorOccured:]: caught exception: " + error->description().str();
    EXPECT_TRUE(log.contains(caught)) << ::testing::PrintToString(log.lines());
    log.clear();
    EXPECT_FALSE(checker->runCheck(row.rule));  // without an out-parameter: the same NO, the same line
    EXPECT_TRUE(log.contains(caught));
  }
  EXPECT_TRUE(checker->valueForKey("functions").isEqual(PXValue(checker->functions())));
}

}  // namespace
