// The rule language's evaluator: walks the parsed tree against an object and
// its bindings. Nothing here keeps state between evaluations, so one parsed
// predicate serves any number of threads.
#include <pxkit/objects/PXArray.h>
#include <pxkit/objects/PXException.h>
#include <pxkit/objects/PXFormat.h>
#include <pxkit/platform/PXStringComparison.h>
#include <pxkit/rules/PXPredicate.h>
#include <unicode/regex.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "rules/internal/PredicateTree.h"

using pxkit::internal::ComparisonOperator;
using pxkit::internal::ExpressionNode;
using pxkit::internal::PostfixStep;
using pxkit::internal::PredicateNode;
using pxkit::internal::Quantifier;

namespace {

constexpr unsigned kTextOptions = PXCaseInsensitiveSearch | PXDiacriticInsensitiveSearch;

[[noreturn]] void raiseInvalid(const PXString& reason) {
  throw PXException(kPXInvalidArgumentException, reason);
}

// A null value counts as absent.
bool present(const PXValue& v) {
  return v && !v.isNull();
}

bool isIntegerKind(const PXValue& v) {
  const PXValue::Kind k = v.kind();
  return k == PXValue::Kind::Bool || k == PXValue::Kind::Int ||
         (k == PXValue::Kind::UInt && v.unsignedLongLongValue() <= static_cast<uint64_t>(INT64_MAX));
}

// ---- Arithmetic ------------------------------------------------------------

PXValue arithmetic(char op, const PXValue& a, const PXValue& b) {
  if (!a.isNumber() || !b.isNumber()) {
    raiseInvalid(
        PXFormat("Can't do arithmetic on %@ (%@) and %@ (%@): only numbers add, subtract, multiply, "
                 "divide and raise",
                 a, a.className(), b, b.className()));
  }
  if (isIntegerKind(a) && isIntegerKind(b) && op != '/') {
    const int64_t x = a.longLongValue(), y = b.longLongValue();
    int64_t r = 0;
    bool overflow = false;
    switch (op) {
      case '+':
        overflow = __builtin_add_overflow(x, y, &r);
        break;
      case '-':
        overflow = __builtin_sub_overflow(x, y, &r);
        break;
      case '*':
        overflow = __builtin_mul_overflow(x, y, &r);
        break;
      default: {  // '^'
        const double p = std::pow(static_cast<double>(x), static_cast<double>(y));
        if (y >= 0 && std::fabs(p) < 9007199254740992.0) return static_cast<long long>(p);
        return p;
      }
    }
    if (!overflow) return static_cast<long long>(r);
  }
  const double x = a.doubleValue(), y = b.doubleValue();
  switch (op) {
    case '+':
      return x + y;
    case '-':
      return x - y;
    case '*':
      return x * y;
    case '/':
      return x / y;
    default:
      return std::pow(x, y);
  }
}

PXValue negate(const PXValue& v) {
  if (!v.isNumber())
    raiseInvalid(PXFormat("Can't do arithmetic on %@ (%@): only numbers negate", v, v.className()));
  if (isIntegerKind(v) && v.longLongValue() != std::numeric_limits<int64_t>::min()) {
    return static_cast<long long>(-v.longLongValue());
  }
  return -v.doubleValue();
}

// ---- Comparisons -----------------------------------------------------------

// Equality without coercion: numbers by value across kinds, strings by text
// (under [c] / [d] when given), arrays element by element.
bool equalValues(const PXValue& a, const PXValue& b, unsigned options) {
  if ((options & kTextOptions) && a.isString() && b.isString()) {
    return PXStringEqual(a.stringValue(), b.stringValue(), options & kTextOptions);
  }
  return a.isEqual(b);
}

// Order of two numbers, two strings (UTF-16 code units) or two dates.
PXComparisonResult orderValues(const PXValue& a, const PXValue& b, unsigned options) {
  if (a.isString() && b.isString())
    return PXStringCompare(a.stringValue(), b.stringValue(), options & kTextOptions);
  if ((a.isNumber() && b.isNumber()) || (a.isDate() && b.isDate())) return a.compare(b);
  raiseInvalid(
      PXFormat("Can't compare %@ (%@) with %@ (%@): only two numbers, two strings or two dates have an order",
               a, a.className(), b, b.className()));
}

[[noreturn]] void raiseSubstring() {
  raiseInvalid("Can't do a substring operation with something that isn't a string");
}

// `text` BEGINSWITH / ENDSWITH / CONTAINS `part`, both strings.
bool substringTest(ComparisonOperator op, std::string_view text, std::string_view part, unsigned options) {
  if (part.empty()) return false;
  options &= kTextOptions;
  if (!options) {
    switch (op) {
      case ComparisonOperator::BeginsWith:
        return text.starts_with(part);
      case ComparisonOperator::EndsWith:
        return text.ends_with(part);
      default:
        return text.find(part) != std::string_view::npos;
    }
  }
  if (op == ComparisonOperator::BeginsWith) options |= PXAnchoredSearch;
  if (op == ComparisonOperator::EndsWith) options |= PXAnchoredSearch | PXBackwardsSearch;
  return PXStringFind(text, part, options).found();
}

// `collection` CONTAINS `item` (and `item` IN `collection`).
bool collectionContains(const PXValue& collection, const PXValue& item, unsigned options) {
  if (collection.isString()) {
    if (!item.isString()) raiseSubstring();
    return substringTest(ComparisonOperator::Contains, collection.stringValue(), item.stringValue(), options);
  }
  if (PXRef<PXArray> array = collection.arrayValue()) {
    for (const PXValue& element : *array) {
      if (element.isEqual(item)) return true;
    }
    return false;
  }
  if (PXRef<PXDictionary> dictionary = collection.dictionaryValue()) {
    for (const PXDictionary::Entry& entry : *dictionary) {
      if (entry.second.isEqual(item)) return true;
    }
    return false;
  }
  raiseInvalid(PXFormat("Can't use in/contains operator with collection %@ (not a collection)", collection));
}

// Whole-string wildcard match: "*" any run, "?" one character, "\" makes the
// next character literal. Linear in the text for each star (no backtracking
// beyond the last star), so no pattern can take exponential time.
bool likeMatch(std::string_view text, std::string_view pattern, unsigned options) {
  constexpr int32_t kAnyRun = -1, kAnyOne = -2;
  auto codePoints = [](std::string_view s) {
    std::vector<int32_t> out;
    out.reserve(s.size());
    for (size_t i = 0; i < s.size();) {
      const auto lead = static_cast<unsigned char>(s[i]);
      const size_t n = lead < 0x80 ? 1 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
      int32_t c = lead < 0x80 ? lead : lead & (0x3F >> (n - 1));
      size_t k = 1;
      for (; k < n && i + k < s.size() && (static_cast<unsigned char>(s[i + k]) & 0xC0) == 0x80; ++k) {
        c = (c << 6) | (static_cast<unsigned char>(s[i + k]) & 0x3F);
      }
      if (k < n) c = 0xFFFD;  // cut short: one replacement character
      out.push_back(c);
      i += k;
    }
    return out;
  };
  const std::string foldedText = PXStringFold(text, options & kTextOptions);
  const std::string foldedPattern = PXStringFold(pattern, options & kTextOptions);
  const std::vector<int32_t> s = codePoints(foldedText);
  std::vector<int32_t> p;
  const std::vector<int32_t> raw = codePoints(foldedPattern);
  for (size_t i = 0; i < raw.size(); ++i) {
    if (raw[i] == '\\') {
      if (++i >= raw.size()) {
        raiseInvalid("The backslash is a wildcard char, and cannot appear unescaped at the end of a string.");
      }
      p.push_back(raw[i]);
    } else {
      p.push_back(raw[i] == '*' ? kAnyRun : raw[i] == '?' ? kAnyOne : raw[i]);
    }
  }
  size_t si = 0, pi = 0, starP = SIZE_MAX, starS = 0;
  while (si < s.size()) {
    if (pi < p.size() && (p[pi] == kAnyOne || p[pi] == s[si])) {
      ++si, ++pi;
    } else if (pi < p.size() && p[pi] == kAnyRun) {
      starP = pi++;
      starS = si;
    } else if (starP != SIZE_MAX) {
      pi = starP + 1;
      si = ++starS;
    } else {
      return false;
    }
  }
  while (pi < p.size() && p[pi] == kAnyRun) ++pi;
  return pi == p.size();
}

bool regexMatch(const PredicateNode& node, std::string_view text, std::string_view pattern) {
  std::shared_ptr<const icu::RegexPattern> compiled = node.regex;
  if (!compiled) {
    std::string error = node.regexError;
    if (error.empty()) compiled = pxkit::internal::compileRegex(pattern, node.options, &error);
    if (!compiled) raiseInvalid(PXString(error));
  }
  const std::string subject = (node.options & PXDiacriticInsensitiveSearch)
                                  ? PXStringFold(text, PXDiacriticInsensitiveSearch)
                                  : std::string(text);
  UErrorCode status = U_ZERO_ERROR;
  icu::UnicodeString input = icu::UnicodeString::fromUTF8(subject);
  std::unique_ptr<icu::RegexMatcher> matcher(compiled->matcher(input, status));
  if (U_SUCCESS(status)) matcher->setTimeLimit(kPXPredicateRegexTimeLimit, status);
  const bool matched = U_SUCCESS(status) && matcher->matches(status);
  if (U_FAILURE(status)) raiseInvalid(PXFormat("Can't do regex matching, reason: %s", u_errorName(status)));
  return matched;
}

// ---- The walk --------------------------------------------------------------

class Evaluator {
 public:
  Evaluator(const PXValue& object, const PXDictionary* variables) : object_(object), variables_(variables) {}

  bool test(const PredicateNode& node) const {
    switch (node.kind) {
      case PredicateNode::Kind::True:
        return true;
      case PredicateNode::Kind::False:
        return false;
      case PredicateNode::Kind::Not:
        return !test(*node.children[0]);
      case PredicateNode::Kind::And:
        for (const auto& child : node.children) {
          if (!test(*child)) return false;
        }
        return true;
      case PredicateNode::Kind::Or:
        for (const auto& child : node.children) {
          if (test(*child)) return true;
        }
        return false;
      case PredicateNode::Kind::Comparison:
        return comparison(node);
    }
    return false;
  }

 private:
  bool comparison(const PredicateNode& node) const {
    const PXValue lhs = value(*node.lhs);
    const PXValue rhs = value(*node.rhs);
    if (node.quantifier == Quantifier::None) return compare(node, lhs, rhs);
    if (!present(lhs)) return node.quantifier != Quantifier::Any;  // as an empty array
    PXRef<PXArray> elements = lhs.arrayValue();
    if (!elements) raiseInvalid("The left hand side for an ALL or ANY operator must be an array.");
    for (const PXValue& element : *elements) {
      const bool holds = compare(node, element, rhs);
      if (node.quantifier == Quantifier::Any && holds) return true;
      if (node.quantifier == Quantifier::All && !holds) return false;
      if (node.quantifier == Quantifier::NoneOf && holds) return false;
    }
    return node.quantifier != Quantifier::Any;
  }

  static bool compare(const PredicateNode& node, const PXValue& lhs, const PXValue& rhs) {
    const bool l = present(lhs), r = present(rhs);
    switch (node.op) {
      case ComparisonOperator::Equal:
      case ComparisonOperator::NotEqual: {
        const bool equal = (l && r) ? equalValues(lhs, rhs, node.options) : (!l && !r);
        return node.op == ComparisonOperator::Equal ? equal : !equal;
      }
      case ComparisonOperator::Less:
      case ComparisonOperator::LessOrEqual:
      case ComparisonOperator::Greater:
      case ComparisonOperator::GreaterOrEqual: {
        if (!l || !r) {
          return !l && !r &&
                 (node.op == ComparisonOperator::LessOrEqual ||
                  node.op == ComparisonOperator::GreaterOrEqual);
        }
        const PXComparisonResult order = orderValues(lhs, rhs, node.options);
        switch (node.op) {
          case ComparisonOperator::Less:
            return order == PXOrderedAscending;
          case ComparisonOperator::LessOrEqual:
            return order != PXOrderedDescending;
          case ComparisonOperator::Greater:
            return order == PXOrderedDescending;
          default:
            return order != PXOrderedAscending;
        }
      }
      case ComparisonOperator::BeginsWith:
      case ComparisonOperator::EndsWith:
        if (!l || !r) return false;
        if (!lhs.isString() || !rhs.isString()) raiseSubstring();
        return substringTest(node.op, lhs.stringValue(), rhs.stringValue(), node.options);
      case ComparisonOperator::Contains:
        return l && r && collectionContains(lhs, rhs, node.options);
      case ComparisonOperator::In:
        return l && r && collectionContains(rhs, lhs, node.options);
      case ComparisonOperator::Like:
        if (!l || !r) return false;
        if (!lhs.isString() || !rhs.isString()) raiseSubstring();
        return !rhs.stringValue().empty() && likeMatch(lhs.stringValue(), rhs.stringValue(), node.options);
      case ComparisonOperator::Matches:
        if (!l || !r) return false;
        if (!lhs.isString() || !rhs.isString()) {
          raiseInvalid(PXFormat("Can't do regex matching on object %@ with pattern %@: both must be strings",
                                lhs, rhs));
        }
        return !rhs.stringValue().empty() && regexMatch(node, lhs.stringValue(), rhs.stringValue());
      case ComparisonOperator::Between: {
        if (!l || !r) return false;
        PXRef<PXArray> bounds = rhs.arrayValue();
        if (!bounds || bounds->count() != 2) {
          raiseInvalid(
              PXFormat("Can't use between operator with rhs %@ (a two-element array is needed)", rhs));
        }
        const PXValue* low = &(*bounds)[0];
        const PXValue* high = &(*bounds)[1];
        if (!present(*low) || !present(*high)) return false;
        if (orderValues(*low, *high, node.options) == PXOrderedDescending) std::swap(low, high);
        return orderValues(*low, lhs, node.options) != PXOrderedDescending &&
               orderValues(lhs, *high, node.options) != PXOrderedDescending;
      }
    }
    return false;
  }

  // The value of `path` asked of `receiver`: absent for an absent receiver,
  // the undefined-key exception for a key it does not know.
  static PXValue lookUp(const PXValue& receiver, std::string_view path) {
    PXValue out;
    PXUndefinedKey undefined;
    if (PXLookupValue(receiver, path, &out, &undefined) == PXKeyLookup::UndefinedKey) undefined.raise();
    return out;
  }

  PXValue value(const ExpressionNode& node) const {
    switch (node.kind) {
      case ExpressionNode::Kind::Constant:
        return node.constant;
      case ExpressionNode::Kind::Variable: {
        const PXValue* bound = variables_ ? variables_->findStringKey(node.name) : nullptr;
        if (!bound) raiseInvalid(PXFormat("Can't get value for '%@' in bindings", PXValue(node.name)));
        return bound->isNull() ? PXValue() : *bound;
      }
      case ExpressionNode::Kind::KeyPath:
        return lookUp(object_, node.name);
      case ExpressionNode::Kind::Self:
        return object_;
      case ExpressionNode::Kind::Array: {
        std::vector<PXValue> elements;
        elements.reserve(node.operands.size());
        for (const auto& operand : node.operands) {
          PXValue element = value(*operand);
          elements.push_back(element ? std::move(element) : PXValue::null());
        }
        return PXValue(PXArray::arrayByTakingValues(elements));
      }
      case ExpressionNode::Kind::Negate:
        return negate(value(*node.operands[0]));
      case ExpressionNode::Kind::Arithmetic: {
        PXValue result = value(*node.operands[0]);
        for (size_t i = 1; i < node.operands.size(); ++i) {
          result = arithmetic(node.ops[i - 1], result, value(*node.operands[i]));
        }
        return result;
      }
      case ExpressionNode::Kind::Postfix: {
        PXValue current = value(*node.operands[0]);
        for (const PostfixStep& step : node.steps) current = apply(step, current);
        return current;
      }
    }
    return {};
  }

  PXValue apply(const PostfixStep& step, const PXValue& current) const {
    if (step.kind == PostfixStep::Kind::KeyPath) return lookUp(current, step.keyPath);
    const PXValue index = step.kind == PostfixStep::Kind::Index ? value(*step.index) : PXValue();
    if (!present(current)) return {};
    if (PXRef<PXArray> array = current.arrayValue()) {
      switch (step.kind) {
        case PostfixStep::Kind::First:
          return array->firstObject();
        case PostfixStep::Kind::Last:
          return array->lastObject();
        case PostfixStep::Kind::Size:
          return static_cast<unsigned long long>(array->count());
        default:
          break;
      }
      if (!index.isNumber() || index.doubleValue() < 0 ||
          index.doubleValue() != std::floor(index.doubleValue())) {
        raiseInvalid(PXFormat("Can't index an array with %@: a whole number from 0 is needed", index));
      }
      const double at = index.doubleValue();
      if (at >= static_cast<double>(array->count())) {
        PXException::raise(kPXRangeException, "*** -[%@ objectAtIndex:]: index (%@) beyond bounds (%lu)",
                           PXValue(array->pxClass().name()), index,
                           static_cast<unsigned long>(array->count()));
      }
      return (*array)[static_cast<size_t>(at)];
    }
    if (PXRef<PXDictionary> dictionary = current.dictionaryValue()) {
      if (step.kind == PostfixStep::Kind::Size) return static_cast<unsigned long long>(dictionary->count());
      if (step.kind == PostfixStep::Kind::Index)
        return present(index) ? dictionary->objectForKey(index) : PXValue();
    }
    raiseInvalid(PXFormat("Can't index %@ (%@): only arrays and dictionaries have elements", current,
                          current.className()));
  }

  const PXValue& object_;
  const PXDictionary* variables_;
};

}  // namespace

PX_DEFINE_CLASS(PXPredicate, PXObject, [](PXClassBuilder<PXPredicate>&) {})

PXPredicate::PXPredicate(std::unique_ptr<const PredicateNode> root) noexcept : root_(std::move(root)) {}
PXPredicate::~PXPredicate() = default;

PXRef<PXPredicate> PXPredicate::predicateWithFormat(std::string_view format) {
  return PXMake<PXPredicate>(pxkit::internal::parsePredicateFormat(format));
}

bool PXPredicate::evaluateWithObject(const PXValue& object, const PXDictionary* variables) const {
  return Evaluator(object, variables).test(*root_);
}

PXString PXPredicate::predicateFormat() const {
  return PXString(pxkit::internal::formatPredicate(*root_));
}

PXString PXPredicate::description() const {
  return predicateFormat();
}
