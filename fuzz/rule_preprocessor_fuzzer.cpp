// Fuzzes the rule checker's "${...}" preprocessing.
//
// Input: the rule text, preprocessed twice by a checker whose providers answer
// from the call itself (so results can bring new "${" into the text):
//   echo  answers its argument's text (a string, or "k:v," pairs of a dictionary);
//   none  answers nothing;   seven  answers 7.
// Properties, each checked with abort():
//   - with a variables dictionary: every variable is named "fnc<N>" with N
//     below the number of calls made, and its "$fnc<N>" stands in the text;
//     no variable holds an absent value;
//   - without one: no "$fnc" is made (only the rule's own "fnc" text can show);
//   - the log says only "Unterminated function: ..." lines, at most one per run;
//   - the work ends: results never grow the text by more than a bound (the
//     search start moves by each inserted length), so a run is linear in the
//     rule and its results.
// Log lines are captured (the system log stays quiet).
//
// The same entry point runs in the ordinary test suite
// (tests/rules/RulePreprocessorFuzz_test.cpp), fed with its seeds, edits of
// them and generated rules.
#include <pxkit/platform/PXLog.h>
#include <pxkit/rules/PXRuleChecker.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

namespace {

// Counts of what each run logged and how many calls the providers saw.
struct Observed {
  size_t unterminated = 0;
  size_t otherLines = 0;
  size_t calls = 0;
};
Observed observed;

PXRuleChecker* fuzzChecker() {
  static PXRuleChecker* const checker = [] {
    PXRef<PXRuleChecker> c = PXRuleChecker::ruleCheckerWithDefaultFunctions(false);
    c->addFunction(PXRuleCheckerFunction::functionWithFunctionID(
        "echo", "echo", [](PXRuleCheckerFunction*, const PXValue& argument, bool) -> PXValue {
          ++observed.calls;
          if (PXRef<PXDictionary> d = argument.dictionaryValue()) {
            std::string text;
            for (const auto& [k, v] : d->entries())
              text += k.description().str() + ":" + v.description().str() + ",";
            return PXValue(text);
          }
          return argument;
        }));
    c->addFunction(PXRuleCheckerFunction::functionWithFunctionID(
        "none", {}, [](PXRuleCheckerFunction*, const PXValue&, bool) -> PXValue {
          ++observed.calls;
          return {};
        }));
    c->addFunction(PXRuleCheckerFunction::functionWithFunctionID(
        "seven", {}, [](PXRuleCheckerFunction*, const PXValue&, bool returnString) -> PXValue {
          ++observed.calls;
          return returnString ? PXValue("7") : PXValue(7);
        }));
    return c.detach();
  }();
  return checker;
}

void require(bool condition) {
  if (!condition) std::abort();
}

size_t countOf(std::string_view text, std::string_view needle) {
  size_t count = 0;
  for (size_t at = text.find(needle); at != std::string_view::npos; at = text.find(needle, at + 1)) ++count;
  return count;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view rule(reinterpret_cast<const char*>(data), size);
  PXRuleChecker* checker = fuzzChecker();
  PXLogSetHandler([](PXLogLevel, std::string_view line) {
    if (line.starts_with("Unterminated function: ")) {
      ++observed.unterminated;
    } else {
      ++observed.otherLines;
    }
  });

  // With variables.
  observed = {};
  PXRef<PXMutableDictionary> variables;
  const PXString withVariables = checker->preprocessCheckRule(rule, &variables);
  require(variables != nullptr);
  require(observed.unterminated <= 1 && observed.otherLines == 0);
  const size_t callsMade = countOf(rule, "${") + observed.calls;  // a bound: results add at most their own
  for (const auto& [key, value] : variables->entries()) {
    const std::string_view name = key.stringValue();
    require(name.starts_with("fnc") && name.size() > 3);
    const long number = std::strtol(std::string(name.substr(3)).c_str(), nullptr, 10);
    require(number >= 0 && static_cast<size_t>(number) < callsMade + 1);
    require(static_cast<bool>(value));
    require(withVariables.view().find("$" + std::string(name)) != std::string_view::npos);
  }

  // Spliced as text.
  observed = {};
  const PXString spliced = checker->preprocessCheckRule(rule);
  require(observed.unterminated <= 1 && observed.otherLines == 0);
  // Without variables no "$fnc<N>" is made: only what the rule's own text brings.
  require(countOf(spliced.view(), "$fnc") <= countOf(rule, "fnc"));

  // And as one expression.
  (void)checker->computeFunction(rule);
  PXLogSetHandler(nullptr);
  return 0;
}
