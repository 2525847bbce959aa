// The "${...}" call syntax: the scanner's reading of one call, and the
// checker's preprocessing of whole rules (substitution, numbering, "NULL",
// fallbacks, unterminated calls).
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pxkit/rules/PXRuleChecker.h>

#include <string>
#include <tuple>
#include <vector>

#include "rules/internal/RuleCallSyntax.h"
#include "support/PXLogCapture.h"

namespace {

using ::testing::ElementsAre;

// An argument dictionary as text: "{}" for empty, "a=b;c=<null>" in order, "-" for none.
std::string argumentsText(const PXRef<PXMutableDictionary>& arguments) {
  if (!arguments) return "-";
  std::string text;
  for (const auto& [key, value] : arguments->entries()) {
    text += (text.empty() ? "" : ";") + std::string(key.stringValue()) + "=" +
            (value.isNull() ? "<null>" : std::string(value.stringValue()));
  }
  return text.empty() ? "{}" : text;
}

TEST(PXRuleCheckerCallSyntax, ScansOneCallBody) {
  // The text after "${"; the identifier, the arguments and the text after the closing "}".
  const std::tuple<const char*, const char*, const char*, const char*> rows[] = {
      {"}", "", "-", ""},
      {"version(os)} == 1", "version", "os=<null>", " == 1"},
      {"x()}", "x", "{}", ""},
      {"x(a=;b=c)}", "x", "a=<null>;b=c", ""},     // "a=" is a bare name too
      {"x(a=b=c)}", "x", "a=b=c", ""},             // a second "=" belongs to the value
      {"a=b}", "a=b", "-", ""},                    // outside the parentheses "=" is ordinary
      {"x(a(b)}", "x", "a(b=<null>", ""},          // a second "(" inside is ordinary
      {"x(a)(b)}", "x", "a=<null>;b=<null>", ""},  // a later list adds to the first
      {"x(a)junk}", "x", "a=<null>", ""},          // text after ")" is dropped
      {"version(os}", "version", "-", ""},         // the list never closed: no dictionary
      {"(fallbackValue=x)}", "", "fallbackValue=x", ""},
      {"x('a;b')}", "x", "a;b=<null>", ""},
      {"x(a\\;b)}", "x", "a;b=<null>", ""},
      {"x(k='a\"b')}", "x", "k=a\"b", ""},  // the other quote is literal inside quotes
      {"x(k='\\')}", "x", "k=\\", ""},      // a backslash is literal inside quotes
      {"x\\}y}", "x}y", "-", ""},           // an escaped "}" does not end the call
      {"${y}", "${y", "-", ""},             // calls do not nest
      {"x(=v)}", "x", "=v", ""},            // an empty name
      {"x(a=1;a=2)}", "x", "a=2", ""},      // a later argument of the same name wins
      {"\xc3\xa9t\xc3\xa9(\xe2\x82\xac)}", "\xc3\xa9t\xc3\xa9", "\xe2\x82\xac=<null>", ""},
  };
  for (const auto& [body, identifier, arguments, rest] : rows) {
    SCOPED_TRACE(body);
    const std::string text = std::string("${") + body;
    pxkit::rules::QuoteStack quotes;
    pxkit::rules::RuleCall call = pxkit::rules::scanRuleCall(text, 2, quotes);
    ASSERT_TRUE(call.terminated);
    EXPECT_EQ(call.identifier, identifier);
    EXPECT_EQ(argumentsText(call.arguments), arguments);
    EXPECT_EQ(text.substr(call.end + 1), rest);
    EXPECT_TRUE(quotes.empty());
    // What the provider gets: one bare name as a string, any other list as the dictionary.
    PXValue argument = pxkit::rules::ruleCallArgument(call);
    if (!call.arguments) {
      EXPECT_FALSE(argument);
    } else if (call.arguments->count() == 1 && call.arguments->entries()[0].second.isNull()) {
      EXPECT_TRUE(argument.isEqual(call.arguments->entries()[0].first));
    } else {
      EXPECT_EQ(argument.objectPointer(), call.arguments.get());
    }
  }
  for (const char* body : {"", "version(os", "x('}", "x(\"a}", "x\\}", "x\\", "x(a=1;"}) {
    pxkit::rules::QuoteStack quotes;
    pxkit::rules::RuleCall call = pxkit::rules::scanRuleCall(std::string("${") + body, 2, quotes);
    EXPECT_FALSE(call.terminated) << body;
    EXPECT_FALSE(call.arguments) << body;
  }
}

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

  // The preprocessed text and the variables as "name=value " pairs.
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
      {"${none(x)} == nil", "NULL == nil", ""},
      {"${}", "NULL", ""},
      {"${(fallbackValue=x)}", "$fnc0", "fnc0=x "},
      {"${nosuch(fallbackValue=3)} == '3'", "$fnc0 == '3'", "fnc0=3 "},
      {"${none(fallbackValue=3)}", "NULL", ""},  // a provider that answers nothing gets no fallback
      {"${echo}", "$fnc0", "fnc0=<absent> "},
      {"${echo(a=1;b)}", "$fnc0", "fnc0=a:1,b:<null>, "},
      {"x${num}y${num}z", "x$fnc0y$fnc1z", "fnc0=7 fnc1=7 "},
  };
  for (const auto& [rule, text, variables] : rows) {
    EXPECT_EQ(withVariables(rule), std::make_pair(std::string(text), std::string(variables))) << rule;
  }
  for (bool returnString : modes) EXPECT_FALSE(returnString);
}

TEST_F(Preprocessing, WithoutADictionaryResultsAreSplicedAsText) {
  const std::pair<const char*, const char*> rows[] = {
      {"${nosuch(fallbackValue=3)} == '3' AND ${echo('10.7')} != 'x'", "3 == '3' AND 10.7 != 'x'"},
      {"${a} ${num}", "NULL 7"},
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

TEST_F(Preprocessing, UnterminatedCallsAreLoggedAndLeftAsWritten) {
  const std::tuple<const char*, const char*, const char*> rows[] = {
      {"a == ${", "a == ${", "Unterminated function: ${"},
      {"${num} == ${echo('x)} == 1", "$fnc0 == ${echo('x)} == 1", "Unterminated function: ${echo('x)} == 1"},
      {"${num}${", "$fnc0${", "Unterminated function: ${"},
  };
  for (const auto& [rule, text, logged] : rows) {
    PXLogCapture log;
    EXPECT_EQ(withVariables(rule).first, text);
    EXPECT_THAT(log.lines(), ElementsAre(logged));
  }
}

}  // namespace
