// The "${...}" call syntax of rules: the pure scanner under
// PXRuleChecker::preprocessCheckRule.
//
// scanRuleCall reads one call body, starting just after its "${", character
// by character with the rules written in PXRuleChecker.h (escapes, quoted
// stretches, the identifier, the argument list). It reads bytes: every
// character with a meaning is ASCII, and UTF-8 never uses ASCII bytes inside
// a multi-byte character, so other text passes through whole.
//
// Thread safety: pure.
#pragma once

#include <pxkit/objects/PXDictionary.h>
#include <pxkit/objects/PXString.h>
#include <pxkit/objects/PXValue.h>

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace pxkit::rules {

// The quote characters open at a point of the scan, innermost last. One stack
// serves a whole preprocessing run.
using QuoteStack = std::vector<char>;

struct RuleCall {
  // False when the text ended before the closing "}".
  bool terminated = false;
  // The index of the closing "}" (when terminated).
  size_t end = 0;
  // The identifier: the text before "(" or, without one, the whole body.
  std::string identifier;
  // The argument dictionary: absent without parentheses (or when the list
  // never closed); empty for "()". Bare names map to the null value.
  PXRef<PXMutableDictionary> arguments;
};

// Scans the call whose body starts at `start` (just after "${") in `text`.
RuleCall scanRuleCall(std::string_view text, size_t start, QuoteStack& quotes);

// What a call passes to its provider: the dictionary, except that a
// dictionary of exactly one entry whose value is null passes the entry's
// name (a string); absent without a dictionary.
PXValue ruleCallArgument(const RuleCall& call);

}  // namespace pxkit::rules
