// The parsed form of a rule: predicate nodes over expression nodes.
//
// Made once by parsePredicateFormat, then only read (from any thread). AND and
// OR chains, sums and products are n-ary, so the tree is no deeper than the
// text's nesting (kPXPredicateMaxNestingDepth): evaluating, printing and
// destroying it recurse that deep at most.
#pragma once

#include <pxkit/objects/PXValue.h>
#include <unicode/uversion.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

U_NAMESPACE_BEGIN
class RegexPattern;
U_NAMESPACE_END

namespace pxkit::internal {

struct ExpressionNode;
using Expression = std::unique_ptr<ExpressionNode>;

// One step after an expression: ".key.path" or "[index]".
struct PostfixStep {
  enum class Kind : uint8_t { KeyPath, Index, First, Last, Size };
  Kind kind = Kind::KeyPath;
  std::string keyPath;  // KeyPath: the components joined by "."
  Expression index;     // Index
};

struct ExpressionNode {
  enum class Kind : uint8_t {
    Constant,    // `constant`
    Variable,    // `$name`
    KeyPath,     // `name`: asked of the evaluated object in one call
    Self,        // the evaluated object
    Array,       // `{operands...}`
    Negate,      // `-operands[0]`
    Arithmetic,  // operands[0] ops[0] operands[1] ops[1] ... left to right, one precedence level
    Postfix,     // operands[0] followed by `steps`
  };
  Kind kind = Kind::Constant;
  PXValue constant;
  std::string name;
  std::vector<Expression> operands;
  std::vector<char> ops;  // '+', '-', '*', '/', '^' (for "**")
  std::vector<PostfixStep> steps;
};

enum class ComparisonOperator : uint8_t {
  Equal,
  NotEqual,
  Less,
  LessOrEqual,
  Greater,
  GreaterOrEqual,
  BeginsWith,
  EndsWith,
  Contains,
  In,
  Like,
  Matches,
  Between,
};

enum class Quantifier : uint8_t { None, Any, All, NoneOf };

struct PredicateNode {
  enum class Kind : uint8_t { True, False, Not, And, Or, Comparison };
  Kind kind = Kind::True;
  std::vector<std::unique_ptr<PredicateNode>> children;  // Not: one; And, Or: two or more
  // Comparison
  Quantifier quantifier = Quantifier::None;
  ComparisonOperator op = ComparisonOperator::Equal;
  unsigned options = 0;  // PXCaseInsensitiveSearch | PXDiacriticInsensitiveSearch
  std::string flags;     // the modifier letters as written, for printing
  Expression lhs, rhs;
  // MATCHES with a constant pattern: compiled once (null when it did not
  // compile; `regexError` then says why, raised at evaluation).
  std::shared_ptr<const icu::RegexPattern> regex;
  std::string regexError;

  PredicateNode();
  ~PredicateNode();
};

// Parses `format`; raises the syntax-error PXException.
std::unique_ptr<PredicateNode> parsePredicateFormat(std::string_view format);
// The canonical text of a tree.
std::string formatPredicate(const PredicateNode& node);
// Compiles a MATCHES pattern with the comparison's options; null and `error`
// set when it does not compile.
std::shared_ptr<const icu::RegexPattern> compileRegex(std::string_view pattern, unsigned options,
                                                      std::string* error);

}  // namespace pxkit::internal
