// What the rule language costs over writing the same check in C++.
//
// The rule is the one common metrics and hosts write most, in the shape the
// checker evaluates it after preprocessing (the call has become $fnc0):
//   version.os >= '10.6' AND $fnc0 == YES AND sysctl.integer.hw.physicalcpu > 2
// The object is a rule checker answering from memory: no providers, its
// kvoValues holding "version.os" and "sysctl.integer.hw.physicalcpu", so
// every key path goes through the checker's own routing. The hand-written
// check reads the same values from the same dictionaries and compares them
// the same way (text by code units, numbers by value).
//
//   BM_Rule_Evaluate            the parsed rule, evaluated
//   BM_Rule_ParseAndEvaluate    parsed afresh each time, then evaluated
//   BM_Handwritten              the C++ function
// Ratios: rule-eval-vs-handwritten, rule-parse-eval-vs-handwritten.
#include <pxkit/rules/PXPredicate.h>
#include <pxkit/rules/PXRuleChecker.h>

#include <cstdlib>
#include <map>
#include <string>
#include <string_view>

#include "support/PXBenchRatio.h"

namespace {

constexpr std::string_view kRule =
    "version.os >= '10.6' AND $fnc0 == YES AND sysctl.integer.hw.physicalcpu > 2";

struct Fixture {
  Fixture() {
    PXRef<PXMutableDictionary> facts = PXMutableDictionary::dictionary();
    facts->setObject("10.7.4", "version.os");
    facts->setObject(4, "sysctl.integer.hw.physicalcpu");
    checker = PXRuleChecker::ruleCheckerWithDefaultFunctions(false);
    checker->setKvoValues(facts);
    PXRef<PXMutableDictionary> bound = PXMutableDictionary::dictionary();
    bound->setObject(true, "fnc0");
    variables = bound;
    object = PXValue(checker);
  }
  PXRef<PXRuleChecker> checker;
  PXRef<PXDictionary> variables;
  PXValue object;
};

Fixture& fixture() {
  static Fixture* const shared = new Fixture;
  return *shared;
}

// The rule in C++: the same lookups, the same comparisons.
bool handwritten(const PXRuleChecker& checker, const PXDictionary& variables) {
  PXRef<PXMutableDictionary> facts = checker.kvoValues();
  const PXValue* os = facts->findStringKey("version.os");
  if (!os || !os->isString() || os->stringValue() < std::string_view("10.6")) return false;
  const PXValue* fnc0 = variables.findStringKey("fnc0");
  if (!fnc0 || !fnc0->isNumber() || fnc0->doubleValue() != 1.0) return false;
  const PXValue* cpus = facts->findStringKey("sysctl.integer.hw.physicalcpu");
  return cpus && cpus->isNumber() && cpus->doubleValue() > 2;
}

void BM_Rule_Evaluate(benchmark::State& state) {
  Fixture& f = fixture();
  PXRef<PXPredicate> rule = PXPredicate::predicateWithFormat(kRule);
  for (auto _ : state) {
    bool yes = rule->evaluateWithObject(f.object, f.variables.get());
    benchmark::DoNotOptimize(yes);
    if (!yes) state.SkipWithError("the rule does not hold");
  }
}

void BM_Rule_ParseAndEvaluate(benchmark::State& state) {
  Fixture& f = fixture();
  for (auto _ : state) {
    bool yes = PXPredicate::predicateWithFormat(kRule)->evaluateWithObject(f.object, f.variables.get());
    benchmark::DoNotOptimize(yes);
    if (!yes) state.SkipWithError("the rule does not hold");
  }
}

void BM_Handwritten(benchmark::State& state) {
  Fixture& f = fixture();
  for (auto _ : state) {
    benchmark::DoNotOptimize(f.checker.get());
    bool yes = handwritten(*f.checker, *f.variables);
    benchmark::DoNotOptimize(yes);
    if (!yes) state.SkipWithError("the check does not hold");
  }
}

BENCHMARK(BM_Rule_Evaluate);
BENCHMARK(BM_Rule_ParseAndEvaluate);
BENCHMARK(BM_Handwritten);

}  // namespace

int main(int argc, char** argv) {
  std::map<std::string, double> times = PXBenchRunAll(argc, argv);
  const double handwrittenTime = times["BM_Handwritten"];
  if (handwrittenTime <= 0) return 1;
  PXBenchReportRatio("rule-eval-vs-handwritten", times["BM_Rule_Evaluate"] / handwrittenTime);
  PXBenchReportRatio("rule-parse-eval-vs-handwritten", times["BM_Rule_ParseAndEvaluate"] / handwrittenTime);
  return 0;
}
