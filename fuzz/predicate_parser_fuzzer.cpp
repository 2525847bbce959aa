// Fuzzes the rule language: parsing, printing and evaluating.
//
// Input: the rule text itself. Every outcome must be orderly: the syntax-error
// PXException, or a predicate whose canonical text parses again and prints the
// same, and whose evaluation against a fixed object and bindings answers YES,
// NO or raises PXException (never anything else, never a crash, leak or hang:
// the parser's length and depth limits and the regular expression time limit
// bound the work).
//
// The same entry point runs in the ordinary test suite
// (tests/rules/PXPredicateFuzz_test.cpp) on mutated rules, so the properties
// hold without clang too.
#include <pxkit/objects/PXArray.h>
#include <pxkit/objects/PXDictionary.h>
#include <pxkit/objects/PXException.h>
#include <pxkit/rules/PXPredicate.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string_view>

namespace {

const PXValue& fuzzObject() {
  static const PXValue object = PXValue(PXDictionary::dictionaryWithEntries(
      {{"version", PXValue(PXDictionary::dictionaryWithEntries({{"os", "10.10"}}))},
       {"name", "abc"},
       {"nums", PXValue(PXArray::arrayWithObjects({1, 5, 2.5}))},
       {"text", "Crème Brûlée"},
       {"nothing", PXValue::null()}}));
  return object;
}

const PXDictionary* fuzzBindings() {
  static const PXRef<PXDictionary> bindings = PXDictionary::dictionaryWithEntries(
      {{"fnc0", true}, {"fnc1", "x"}, {"n", 3}, {"none", PXValue::null()}});
  return bindings.get();
}

[[noreturn]] void broken(const char* what, std::string_view rule, std::string_view detail) {
  std::fprintf(stderr, "predicate fuzzer: %s\n  rule: %.*s\n  %.*s\n", what, static_cast<int>(rule.size()),
               rule.data(), static_cast<int>(detail.size()), detail.data());
  std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view rule(reinterpret_cast<const char*>(data), size);
  PXRef<PXPredicate> predicate;
  try {
    predicate = PXPredicate::predicateWithFormat(rule);
  } catch (const PXException& e) {
    if (!e.reason().view().starts_with("Unable to parse the format string \"")) {
      broken("a syntax error without the fixed reason", rule, e.reason().view());
    }
    return 0;
  }
  const PXString format = predicate->predicateFormat();
  try {
    PXRef<PXPredicate> again = PXPredicate::predicateWithFormat(format.view());
    if (!(again->predicateFormat() == format))
      broken("the canonical text prints differently", rule, format.view());
  } catch (const PXException&) {
    broken("the canonical text does not parse", rule, format.view());
  }
  try {
    (void)predicate->evaluateWithObject(fuzzObject(), fuzzBindings());
  } catch (const PXException&) {
    // an orderly failure: what the rule checker catches
  }
  return 0;
}
