// The rule checker's registry, computeFunction and key lookup.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pxkit/rules/PXRuleChecker.h>
#include <pxkit/rules/PXRuleCheckerApplicationFunction.h>
#include <pxkit/rules/PXRuleCheckerFilesystemFunction.h>
#include <pxkit/rules/PXRuleCheckerIOKitFunction.h>
#include <pxkit/rules/PXRuleCheckerSysCtlFunction.h>
#include <pxkit/rules/PXRuleCheckerVersionFunction.h>

#include <iterator>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "support/PXLogCapture.h"

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

struct Asked {
  std::string provider;
  std::string argument;  // the "%@" text; "<absent>" for none
  bool returnString;
};

// A block-form provider that records what it is asked and answers `answer`.
PXRef<PXRuleCheckerFunction> recorder(const char* identifier, const char* prefix, PXValue answer,
                                      std::vector<Asked>* asked) {
  return PXRuleCheckerFunction::functionWithFunctionID(
      identifier, prefix ? PXString(prefix) : PXString(),
      [=, name = std::string(identifier)](PXRuleCheckerFunction*, const PXValue& argument,
                                          bool returnString) {
        asked->push_back({name, argument ? argument.description().str() : "<absent>", returnString});
        return answer;
      });
}

// The providers every rule reaches: by call ("${sysctl(...)}") through their
// identifier, by key path ("sysctl.hw.ncpu") through their prefix.
TEST(PXRuleChecker, DefaultFunctionsAreFreshProvidersInTheirOrder) {
  PXRef<PXArray> first = PXRuleChecker::defaultFunctions();
  PXRef<PXArray> second = PXRuleChecker::defaultFunctions();
  const std::tuple<const PXClass*, const char*, const char*> order[] = {
      {&PXRuleCheckerVersionFunction::classObject(), "version", "version"},
      {&PXRuleCheckerApplicationFunction::classObject(), "application", "application"},
      {&PXRuleCheckerFilesystemFunction::classObject(), "filesystem", nullptr},
      {&PXRuleCheckerSysCtlFunction::classObject(), "sysctl", "sysctl"},
      {&PXRuleCheckerIOKitFunction::classObject(), "iokit", nullptr},
  };
  ASSERT_EQ(first->count(), std::size(order));
  PXRuleChecker* shared = PXRuleChecker::sharedChecker();
  EXPECT_EQ(shared, PXRuleChecker::sharedChecker());
  for (size_t i = 0; i < std::size(order); ++i) {
    const auto& [kind, identifier, prefix] = order[i];
    const auto* function = static_cast<const PXRuleCheckerFunction*>(first->objectAtIndex(i).objectPointer());
    EXPECT_TRUE(function->isKindOfClass(*kind)) << i;
    EXPECT_EQ(function->functionID(), identifier);
    EXPECT_EQ(function->functionKeyPathPrefix(), prefix ? PXString(prefix) : PXString());
    EXPECT_TRUE(shared->functionForIdentifier(identifier)->isKindOfClass(*kind)) << identifier;
  }
  EXPECT_NE(first->objectAtIndex(0).objectPointer(), second->objectAtIndex(0).objectPointer());
  EXPECT_EQ(shared->functions()->count(), std::size(order));
  EXPECT_EQ(PXRuleChecker::ruleCheckerWithDefaultFunctions(false)->functions()->count(), 0u);
  EXPECT_FALSE(PXRuleCheckerFunction::function()->resultFor("x", false));
}

TEST(PXRuleChecker, TheFirstProviderOfAnIdentifierOrPrefixWins) {
  std::vector<Asked> asked;
  PXRef<PXRuleChecker> checker = PXRuleChecker::ruleCheckerWithDefaultFunctions(false);
  checker->addFunction(recorder("x", "y", "first", &asked));
  checker->addFunctions(
      *PXArray::arrayWithObjects({PXValue(recorder("x", "y", "second", &asked)), PXValue("not a provider"),
                                  PXValue(recorder("z", "x", "z", &asked))}));
  checker->addFunction({});
  EXPECT_EQ(checker->functions()->count(), 3u);

  EXPECT_EQ(checker->computeFunction("${x(a)}").stringValue(), "first");
  EXPECT_EQ(checker->computeFunction("y.anything.at.all").stringValue(), "first");
  // Routing by prefix only: identifier "x" is not a prefix, prefix "x" belongs to "z".
  EXPECT_EQ(checker->computeFunction("x.anything").stringValue(), "z");
  EXPECT_FALSE(checker->functionForIdentifier("X"));
  EXPECT_FALSE(checker->functionForIdentifier(""));
  ASSERT_EQ(asked.size(), 3u);
  EXPECT_EQ(asked[0].argument, "a");
  EXPECT_EQ(asked[1].argument, "anything.at.all");  // the rest after the first dot, dots kept
  EXPECT_EQ(asked[2].argument, "anything");
  for (const Asked& a : asked) EXPECT_FALSE(a.returnString);
}

TEST(PXRuleChecker, ComputeFunctionAnswersOneCallOrOneKeyPath) {
  std::vector<Asked> asked;
  PXRef<PXRuleChecker> checker = PXRuleChecker::ruleCheckerWithDefaultFunctions(false);
  checker->addFunction(recorder("seven", "seven", 7, &asked));
  checker->addFunction(recorder("nothing", nullptr, PXValue(), &asked));
  checker->addFunction(PXRuleCheckerFunction::functionWithFunctionID("empty", "empty", nullptr));
  struct Row {
    const char* expression;
    PXValue value;
    const char* logged;  // "" for no line
  };
  const Row rows[] = {
      {"${seven}", 7, ""},
      {"$ before ${seven(a=1)} after", 7, ""},  // text around the call is dropped
      {"${nothing(fallbackValue=3)}", PXValue(), ""},
      {"${empty(a)}", PXValue(), ""},  // a provider without a callback answers nothing
      {"empty.a", PXValue(), ""},
      {"${nosuch(fallbackValue=3)}", "3", ""},
      {"${nosuch}", PXValue(), ""},
      {"$fnc0", PXValue(), ""},
      {"${seven} ${seven}", PXValue(), "Error processing function (more than one result): ${seven} ${seven}"},
      // One answer among absent ones is still one result.
      {"${nothing} ${seven}", 7, ""},
      {"seven.x", 7, ""},
      {"nosuchprefix.x", PXValue(), ""},  // the undefined key is not passed on
      {" ${seven}", PXValue(), ""},       // not beginning with "$": a key path, and an unknown one
      {"${seven", PXValue(), "Unterminated function: ${seven"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.expression);
    PXLogCapture log;
    PXValue value = checker->computeFunction(row.expression);
    EXPECT_TRUE(value.isEqual(row.value)) << value.description().str();
    if (*row.logged) {
      EXPECT_THAT(log.lines(), ElementsAre(row.logged));
    } else {
      EXPECT_THAT(log.lines(), IsEmpty());
    }
  }
}

TEST(PXRuleChecker, KeyPathsGoToProvidersThenKvoValuesThenTheCheckersOwnKeys) {
  std::vector<Asked> asked;
  PXRef<PXRuleChecker> checker = PXRuleChecker::ruleCheckerWithDefaultFunctions(false);
  checker->addFunction(recorder("v", "version", PXValue(), &asked));
  PXRef<PXMutableDictionary> fixed = PXMutableDictionary::dictionary();
  fixed->setObject("plain", "name");
  fixed->setObject("dotted", "a.b");
  fixed->setObject("shadowed", "version.os");
  fixed->setObject(PXValue::null(), "nothing");
  checker->setKvoValues(fixed);

  // A provider's answer, even absent, is the value: kvoValues are not asked.
  EXPECT_FALSE(checker->valueForKeyPath("version.os"));
  ASSERT_EQ(asked.size(), 1u);
  EXPECT_EQ(asked[0].argument, "os");
  EXPECT_EQ(checker->valueForKeyPath("a.b").stringValue(), "dotted");
  EXPECT_EQ(checker->valueForKeyPath("name").stringValue(), "plain");
  EXPECT_EQ(checker->valueForKey("name").stringValue(), "plain");
  EXPECT_TRUE(checker->valueForKey("nothing").isNull());
  // A bare "version" is no provider's: the checker's own lookup, which raises.
  EXPECT_THROW(checker->valueForKeyPath("version"), PXException);
  try {
    checker->valueForKeyPath("nosuch.key");
    FAIL() << "no exception";
  } catch (const PXException& e) {
    EXPECT_EQ(e.name(), kPXUndefinedKeyException);
    EXPECT_THAT(e.reason().str(), ::testing::HasSubstr("valueForUndefinedKey:]: this class is not key value "
                                                       "coding-compliant for the key nosuch."));
  }
  // The checker's declared properties answer by key.
  EXPECT_TRUE(checker->valueForKey("functions").isEqual(PXValue(checker->functions())));
}

// A checker with a provider "v" (prefix "version") answering "os" → "10.7.4",
// "cpus" → 4, anything else absent; and "nothing" answering absent.
PXRef<PXRuleChecker> ruleChecker() {
  PXRef<PXRuleChecker> checker = PXRuleChecker::ruleCheckerWithDefaultFunctions(false);
  checker->addFunction(PXRuleCheckerFunction::functionWithFunctionID(
      "version", "version",
      [](PXRuleCheckerFunction*, const PXValue& argument, bool returnString) -> PXValue {
        if (argument.stringValue() == "os") return "10.7.4";
        if (argument.stringValue() == "cpus") return returnString ? PXValue("4") : PXValue(4);
        return {};
      }));
  checker->addFunction(PXRuleCheckerFunction::functionWithFunctionID("nothing", {}, nullptr));
  return checker;
}

// Rules over calls, key paths and fixed values; what a rule raises is caught,
// logged and handed out, with or without an out-parameter.
TEST(PXRuleCheckerRunCheck, AnswersRulesAndCatchesWhatTheyRaise) {
  PXRef<PXRuleChecker> checker = ruleChecker();
  PXRef<PXMutableDictionary> fixed = PXMutableDictionary::dictionary();
  fixed->setObject("abc", "name");
  checker->setKvoValues(fixed);
  struct Row {
    const char* rule;
    bool answer;
    const char* name = nullptr;  // of the exception; null for none
    const char* reasonStart = "";
  };
  const Row rows[] = {
      {"version.os >= '10.6'", true},
      {"version.os BEGINSWITH '10.7' AND version.cpus > 2", true},
      {"${version(os)} == '10.7.4'", true},
      {"${version(cpus)} == 4", true},  // typed: the number 4, not the text "4"
      {"${version(cpus)} == '4'", false},
      {"${nosuch(fallbackValue=3)} == '3' AND ${version(os)} != 'x'", true},
      {"${nothing} == nil", true},
      {"version.missing == nil", true},  // a provider's absent answer is no error
      {"name LIKE 'a?c'", true},
      {"1 == 2 AND nosuch.key == 1", false},  // what is not evaluated cannot raise
      {"version.os ==", false, kPXInvalidArgumentException,
       "Unable to parse the format string \"version.os ==\""},
      {"nosuch.key == 1", false, kPXUndefinedKeyException, "[<PXRuleChecker 0x"},
      {"version == 1", false, kPXUndefinedKeyException,
       "[<PXRuleChecker 0x"},  // a bare prefix is no provider's
      {"$fnc7 == 1", false, kPXInvalidArgumentException, "Can't get value for 'fnc7' in bindings"},
      // An unterminated call stays in the text, which then cannot be parsed.
      {"${version(os", false, kPXInvalidArgumentException,
       "Unable to parse the format string \"${version(os\""},
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
    EXPECT_TRUE(error->reason().view().starts_with(row.reasonStart)) << error->reason().str();
    const std::string caught =
        "-[PXRuleChecker runCheck:errorOccured:]: caught exception: " + error->description().str();
    EXPECT_TRUE(log.contains(caught)) << ::testing::PrintToString(log.lines());
    log.clear();
    EXPECT_FALSE(checker->runCheck(row.rule));  // without an out-parameter: the same NO, the same line
    EXPECT_TRUE(log.contains(caught));
  }
  EXPECT_FALSE(checker->runCheck(PXString()));
}

}  // namespace
