// Preprocessing whole rules: "${...}" calls numbered, spliced as NULL or as text.
#include <gtest/gtest.h>
#include <pxkit/rules/PXRuleChecker.h>

#include <string>
#include <tuple>
#include <vector>

namespace {

// Providers that show what they were asked: "echo" answers the argument's
// "%@" text ("<absent>" for none); "num" 7, or "7" in text mode; "none" nothing.
class Preprocessing : public ::testing::Test {
 protected:
  Preprocessing() {
    checker->addFunction(PXRuleCheckerFunction::functionWithFunctionID(
        "echo", {}, [this](PXRuleCheckerFunction*, const PXValue& argument, bool returnString) -> PXValue {
          modes.push_back(returnString);
          if (!argument) return "<absent>";
          if (!argument.isDictionary()) return argument;
          std::string text;
          for (const auto& [k, v] : argument.dictionaryValue()->entries())
            text += std::string(k.stringValue()) + ":" + v.description().str() + ",";
          return text;
        }));
    checker->addFunction(PXRuleCheckerFunction::functionWithFunctionID(
        "num", {}, [](PXRuleCheckerFunction*, const PXValue&, bool returnString) -> PXValue {
          return returnString ? PXValue("7") : PXValue(7);
        }));
    checker->addFunction(PXRuleCheckerFunction::functionWithFunctionID("none", {}, nullptr));
  }

  std::pair<std::string, std::string> withVariables(const std::string& rule) {
    PXRef<PXMutableDictionary> variables;
    PXString text = checker->preprocessCheckRule(rule, &variables);
    if (!variables) return {text.str(), "<no dictionary>"};
    std::string list;
    for (const auto& [k, v] : variables->entries())
      list += std::string(k.stringValue()) + "=" + v.description().str() + " ";
    return {text.str(), list};
  }

  PXRef<PXRuleChecker> checker = PXRuleChecker::ruleCheckerWithDefaultFunctions(false);
  std::vector<bool> modes;
};

TEST_F(Preprocessing, ReplacesCallsWithVariablesNumberedByCall) {
  const std::tuple<const char*, const char*, const char*> rows[] = {
      {"", "", ""},  // the dictionary is handed out even without calls
      {"${echo(os)} == 'os' AND ${num} == 7", "$fnc0 == 'os' AND $fnc1 == 7", "fnc0=os fnc1=7 "},
      // Absent results are spliced as NULL and leave a gap in the numbering.
      {"${a} ${num}", "NULL $fnc1", "fnc1=7 "},
      {"${(fallbackValue=x)}", "$fnc0", "fnc0=x "},
      {"${none(fallbackValue=3)}", "NULL", ""},  // a provider that answers nothing gets no fallback
      {"${echo}", "$fnc0", "fnc0=<absent> "},
      {"${echo(a=1;b)}", "$fnc0", "fnc0=a:1,b:<null>, "},
      // A second "=" belongs to the value; quotes and "\\" keep ";" in; a later list adds to the first.
      {"${echo(a=b=c;k='x;y';z\\;w)}", "$fnc0", "fnc0=a:b=c,k:x;y,z;w:<null>, "},
  };
  for (const auto& [rule, text, variables] : rows) {
    EXPECT_EQ(withVariables(rule), std::make_pair(std::string(text), std::string(variables))) << rule;
  }
  for (bool returnString : modes) EXPECT_FALSE(returnString);
}

TEST_F(Preprocessing, WithoutADictionaryResultsAreSplicedAsText) {
  const std::pair<const char*, const char*> rows[] = {
      {"${nosuch(fallbackValue=3)} == '3' AND ${echo('10.7')} != 'x'", "3 == '3' AND 10.7 != 'x'"},
      {"${(fallbackValue)}", "NULL"},     // a bare fallback is the null value: NULL in text
      {"${echo('a${num}')}", "a${num}"},  // a call a result brings in before the moved start stays
      // "$" is inserted at 2 and the search goes on from 0 + 1: the "${" that the
      // result and the text after it make together is expanded.
      {"ab${echo('$')}{num}", "ab7"},
      {"0123456789${echo('${num}')}", "01234567897"},  // beyond the moved start (0 + 6): expanded
  };
  for (const auto& [rule, text] : rows) EXPECT_EQ(checker->preprocessCheckRule(rule).str(), text) << rule;
  ASSERT_FALSE(modes.empty());
  for (bool returnString : modes) EXPECT_TRUE(returnString);
}

}  // namespace
