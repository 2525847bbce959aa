// PXKit — the predicate language of rules: parse once, evaluate many times.
//
// A rule is a predicate text such as
//   version.os >= '10.6' AND $fnc0 == YES AND sysctl.integer.hw.physicalcpu > 2
// PXPredicate parses it into a tree once; evaluateWithObject then answers YES
// or NO against an object, asking it for key paths ("version.os" in one
// valueForKeyPath call, a key without a dot through valueForKey) and taking
// `$name` from a dictionary of bindings. docs/rules.md is the language's
// reference; in short:
//   - AND (&&) binds tighter than OR (||); NOT (!) binds to the one predicate
//     after it; TRUEPREDICATE, FALSEPREDICATE; parentheses nest;
//   - comparisons  = == != <> < <= =< > >= => BEGINSWITH ENDSWITH CONTAINS
//     LIKE MATCHES IN BETWEEN, with [c] (ignore case), [d] (ignore
//     diacritics), [n], [l] (accepted, no effect) after the operator; ANY/SOME,
//     ALL, NONE before a comparison whose left side is an array;
//   - expressions: numbers (12, 1.5e1, 0x10, 0o17, 0b101), strings in '…' or
//     "…", YES/TRUE NO/FALSE NULL/NIL, {arrays}, $variables, SELF, key paths
//     (x.#size escapes a reserved word, list.@count), + - * / **, x[i],
//     x[FIRST], x[LAST], x[SIZE];
//   - strings order by UTF-16 code units ('10.10' < '10.6': text, not
//     versions); numbers compare by value across kinds, never equal to strings;
//   - AND and OR stop at the first NO / YES, and what is not evaluated cannot
//     raise.
//
//   PXRef<PXPredicate> rule = PXPredicate::predicateWithFormat("name BEGINSWITH[c] 'ab' AND $n > 2");
//   auto bindings = PXDictionary::dictionaryWithEntries({{"n", 3}});
//   bool yes = rule->evaluateWithObject(PXValue(object), bindings.get());
//
// Errors raise PXException, which the rule checker catches:
//   kPXInvalidArgumentException  syntax errors: `Unable to parse the format string "<rule>"`
//                                followed by where and why; an unbound `$v`: "Can't get value
//                                for 'v' in bindings"; wrong operands: "Can't do a substring
//                                operation with something that isn't a string", "Can't use
//                                in/contains operator with collection …", "Can't use between
//                                operator with rhs …", "The left hand side for an ALL or ANY
//                                operator must be an array.", "The backslash is a wildcard
//                                char, and cannot appear unescaped at the end of a string.",
//                                "Can't do regex matching, reason: …", "Can't compare …",
//                                "Can't do arithmetic …", "Can't index …"
//   kPXUndefinedKeyException     a key the object (not a dictionary) does not know
//   kPXRangeException            an array index past the end
//
// Thread safety: a parsed predicate is immutable; evaluate it from any number
// of threads at once (the object and bindings are only read — each must be
// safe to read on that thread).
#pragma once

#include <pxkit/export.h>
#include <pxkit/objects/PXDictionary.h>
#include <pxkit/objects/PXObject.h>

#include <cstddef>
#include <memory>
#include <string_view>

namespace pxkit::internal {
struct PredicateNode;
}

// Limits on what a rule text may be. Longer or deeper texts are syntax errors.
inline constexpr size_t kPXPredicateMaxFormatLength = 65536;  // bytes of rule text
// Parentheses, braces, index brackets, NOTs and unary minus signs open one
// level each; this many may be open at once.
inline constexpr size_t kPXPredicateMaxNestingDepth = 64;
// The longest a MATCHES may run, in steps of ICU's matcher (a step is a fixed
// count of matching operations, so the limit does not depend on the machine's
// speed); beyond it the match raises "Can't do regex matching, reason:
// U_REGEX_TIME_OUT". Ordinary patterns need a handful of steps.
inline constexpr int kPXPredicateRegexTimeLimit = 1000;

class PXKIT_EXPORT PXPredicate : public PXObject {
  PX_DECLARE_CLASS(PXPredicate)
 public:
  // Parses `format`. Raises PXException (kPXInvalidArgumentException) whose
  // reason begins `Unable to parse the format string "<format>"` on a syntax
  // error, a text longer than kPXPredicateMaxFormatLength or nested deeper than
  // kPXPredicateMaxNestingDepth. Regular expressions given as constant text are
  // compiled here; a bad one raises only when evaluated. Any thread.
  static PXRef<PXPredicate> predicateWithFormat(std::string_view format);

  // Evaluates against `object` (any value; key paths ask it when it is an
  // object, give absent when it is absent, and raise for other values), with
  // `$name` taken from `variables` (may be null: then any variable raises).
  // Raises PXException as the language says. Any thread.
  bool evaluateWithObject(const PXValue& object, const PXDictionary* variables = nullptr) const;

  // The predicate as text in the language's canonical spelling: keywords in
  // capitals, strings in double quotes, compound parts in parentheses. Parsing
  // it gives a predicate that evaluates alike and prints the same text.
  PXString predicateFormat() const;
  // The same as description ("%@").
  PXString description() const override;

  ~PXPredicate() override;
  // For PXMake; use predicateWithFormat.
  explicit PXPredicate(std::unique_ptr<const pxkit::internal::PredicateNode> root) noexcept;

 private:
  std::unique_ptr<const pxkit::internal::PredicateNode> root_;
};
