// The rule language's parser: text → tokens → tree, and the tree back to text.
//
// Recursive descent over a token list, one function per precedence level. The
// one ambiguity, "(" opening either a grouped predicate or a grouped
// expression, is settled by trying the predicate first and falling back to the
// expression; a position where the predicate failed is remembered, so that
// nested parentheses cost one retry each, not one per way through them.
#include <pxkit/objects/PXException.h>
#include <pxkit/objects/PXFormat.h>
#include <pxkit/platform/PXStringComparison.h>
#include <pxkit/rules/PXPredicate.h>
#include <unicode/regex.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <limits>
#include <string>
#include <unordered_set>
#include <utility>

#include "rules/internal/PredicateTree.h"

namespace pxkit::internal {

PredicateNode::PredicateNode() = default;
PredicateNode::~PredicateNode() = default;

namespace {

// ---- Tokens ----------------------------------------------------------------

struct Token {
  enum class Kind : uint8_t { End, Identifier, EscapedIdentifier, Operator, Number, String, Variable, AtKey };
  Kind kind = Kind::End;
  std::string text;  // identifier, operator spelling, string contents, variable name, "@key"
  PXValue number;
  size_t offset = 0;
};

struct ParseFailure {
  size_t offset;
  std::string message;
};

constexpr std::string_view kReservedWords[] = {
    "AND", "OR", "IN", "NOT", "ALL", "ANY", "SOME", "NONE", "LIKE", "MATCHES", "CONTAINS", "BEGINSWITH",
    "ENDSWITH", "BETWEEN", "NULL", "NIL", "SELF", "TRUE", "YES", "FALSE", "NO", "FIRST", "LAST", "SIZE",
    "TRUEPREDICATE", "FALSEPREDICATE",
    // Never needed by rules, refused so that a rule cannot mean something else elsewhere.
    "CASEINSENSITIVE", "CI", "ANYKEY", "SUBQUERY", "FETCH", "CAST"};

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return (x >= 'a' && x <= 'z' ? x - 32 : x) == (y >= 'a' && y <= 'z' ? y - 32 : y);
         });
}

bool isReserved(std::string_view word) {
  if (word.size() < 2 || word.size() > 15) return false;  // the shortest and longest reserved words
  return std::any_of(std::begin(kReservedWords), std::end(kReservedWords),
                     [&](std::string_view reserved) { return equalsIgnoringCase(word, reserved); });
}

bool isIdentifierStart(char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '_';
}
bool isIdentifierChar(char c) {
  return isIdentifierStart(c) || (c >= '0' && c <= '9');
}
bool isSpace(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v';
}

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

void appendCodePoint(std::string& out, uint32_t c) {
  if (c < 0x80) {
    out.push_back(static_cast<char>(c));
  } else if (c < 0x800) {
    out.push_back(static_cast<char>(0xC0 | (c >> 6)));
    out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
  } else if (c < 0x10000) {
    out.push_back(static_cast<char>(0xE0 | (c >> 12)));
    out.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
  } else {
    out.push_back(static_cast<char>(0xF0 | (c >> 18)));
    out.push_back(static_cast<char>(0x80 | ((c >> 12) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
  }
}

class Lexer {
 public:
  explicit Lexer(std::string_view text) : text_(text) {}

  std::vector<Token> tokens() {
    std::vector<Token> out;
    out.reserve(text_.size() / 4 + 4);  // rules average more than four bytes a token
    for (;;) {
      while (pos_ < text_.size() && isSpace(text_[pos_])) ++pos_;
      Token token;
      token.offset = pos_;
      if (pos_ >= text_.size()) {
        out.push_back(std::move(token));
        return out;
      }
      const char c = text_[pos_];
      if (c >= '0' && c <= '9') {
        token.kind = Token::Kind::Number;
        token.number = number();
      } else if (c == '\'' || c == '"') {
        token.kind = Token::Kind::String;
        token.text = quoted(c);
      } else if (isIdentifierStart(c)) {
        token.kind = Token::Kind::Identifier;
        token.text = word(pos_);
      } else if (c == '$' || c == '#' || c == '@') {
        ++pos_;
        if (pos_ >= text_.size() || !isIdentifierStart(text_[pos_])) fail("a name must follow '", c, "'");
        token.kind = c == '$'   ? Token::Kind::Variable
                     : c == '#' ? Token::Kind::EscapedIdentifier
                                : Token::Kind::AtKey;
        if (c == '@') token.text.push_back('@');
        token.text += word(pos_);
      } else {
        token.kind = Token::Kind::Operator;
        token.text = punctuation();
      }
      out.push_back(std::move(token));
    }
  }

 private:
  template <class... Parts>
  [[noreturn]] void fail(const Parts&... parts) const {
    std::string message;
    ((message += parts), ...);
    throw ParseFailure{pos_, std::move(message)};
  }

  std::string word(size_t start) {
    while (pos_ < text_.size() && isIdentifierChar(text_[pos_])) ++pos_;
    return std::string(text_.substr(start, pos_ - start));
  }

  PXValue number() {
    const size_t start = pos_;
    int base = 10;
    if (text_[pos_] == '0' && pos_ + 1 < text_.size()) {
      const char marker = static_cast<char>(text_[pos_ + 1] | 0x20);
      base = marker == 'x' ? 16 : marker == 'o' ? 8 : marker == 'b' ? 2 : 10;
    }
    PXValue value;
    if (base != 10) {
      pos_ += 2;
      uint64_t n = 0;
      size_t digits = 0;
      for (; pos_ < text_.size(); ++pos_, ++digits) {
        const int d = hexValue(text_[pos_]);
        if (d < 0 || d >= base) break;
        if (n >
            (std::numeric_limits<uint64_t>::max() - static_cast<uint64_t>(d)) / static_cast<uint64_t>(base)) {
          fail("the number is too large");
        }
        n = n * static_cast<uint64_t>(base) + static_cast<uint64_t>(d);
      }
      if (digits == 0) fail("digits must follow the number's base");
      value = n <= static_cast<uint64_t>(std::numeric_limits<int64_t>::max())
                  ? PXValue(static_cast<long long>(n))
                  : PXValue(static_cast<unsigned long long>(n));
    } else {
      bool fraction = false;
      while (pos_ < text_.size() && text_[pos_] >= '0' && text_[pos_] <= '9') ++pos_;
      if (pos_ + 1 < text_.size() && text_[pos_] == '.' && text_[pos_ + 1] >= '0' && text_[pos_ + 1] <= '9') {
        fraction = true;
        ++pos_;
        while (pos_ < text_.size() && text_[pos_] >= '0' && text_[pos_] <= '9') ++pos_;
      }
      if (pos_ < text_.size() && (text_[pos_] == 'e' || text_[pos_] == 'E')) {
        size_t at = pos_ + 1;
        if (at < text_.size() && (text_[at] == '+' || text_[at] == '-')) ++at;
        if (at < text_.size() && text_[at] >= '0' && text_[at] <= '9') {
          fraction = true;
          pos_ = at;
          while (pos_ < text_.size() && text_[pos_] >= '0' && text_[pos_] <= '9') ++pos_;
        }
      }
      const char* first = text_.data() + start;
      const char* last = text_.data() + pos_;
      if (!fraction) {
        uint64_t n = 0;
        if (std::from_chars(first, last, n).ec == std::errc()) {
          value = n <= static_cast<uint64_t>(std::numeric_limits<int64_t>::max())
                      ? PXValue(static_cast<long long>(n))
                      : PXValue(static_cast<unsigned long long>(n));
        } else {
          fraction = true;  // beyond 64 bits: a double
        }
      }
      if (fraction) {
        double d = 0;
        const std::from_chars_result r = std::from_chars(first, last, d);
        if (r.ec == std::errc::result_out_of_range) {
          // Too large or too small: the direction is the exponent's sign.
          const std::string_view spelled(first, static_cast<size_t>(last - first));
          const size_t e = spelled.find_first_of("eE");
          d = e != std::string_view::npos && e + 1 < spelled.size() && spelled[e + 1] == '-'
                  ? 0.0
                  : std::numeric_limits<double>::infinity();
        }
        value = d;
      }
    }
    if (pos_ < text_.size() && (isIdentifierChar(text_[pos_]) || text_[pos_] == '.')) {
      if (text_[pos_] != '.') fail("a number must not run into a name");
    }
    return value;
  }

  std::string quoted(char quote) {
    ++pos_;
    std::string out;
    while (pos_ < text_.size()) {
      const char c = text_[pos_++];
      if (c == quote) return out;
      if (c != '\\') {
        out.push_back(c);
        continue;
      }
      if (pos_ >= text_.size()) break;
      const char e = text_[pos_++];
      switch (e) {
        case 'n':
          out.push_back('\n');
          break;
        case 't':
          out.push_back('\t');
          break;
        case 'r':
          out.push_back('\r');
          break;
        case 'u': {
          uint32_t unit = hex4();
          if (unit >= 0xD800 && unit <= 0xDBFF && pos_ + 1 < text_.size() && text_[pos_] == '\\' &&
              text_[pos_ + 1] == 'u') {
            const size_t back = pos_;
            pos_ += 2;
            const uint32_t low = hex4();
            if (low >= 0xDC00 && low <= 0xDFFF) {
              unit = 0x10000 + ((unit - 0xD800) << 10) + (low - 0xDC00);
            } else {
              pos_ = back;  // not a pair: the lead stands alone, the next escape is read on its own
            }
          }
          appendCodePoint(out, unit >= 0xD800 && unit <= 0xDFFF ? 0xFFFD : unit);
          break;
        }
        default:  // "\\", "\'", "\"" and any other character: itself
          out.push_back(e);
          break;
      }
    }
    fail("the string has no closing ", quote);
  }

  uint32_t hex4() {
    uint32_t value = 0;
    for (int i = 0; i < 4; ++i) {
      const int d = pos_ < text_.size() ? hexValue(text_[pos_]) : -1;
      if (d < 0) fail("\\u must be followed by four hexadecimal digits");
      value = value * 16 + static_cast<uint32_t>(d);
      ++pos_;
    }
    return value;
  }

  std::string punctuation() {
    static constexpr std::string_view kTwo[] = {"**", "==", "!=", "<>", "<=", "=<", ">=", "=>", "&&", "||"};
    const std::string_view rest = text_.substr(pos_);
    for (std::string_view two : kTwo) {
      if (rest.starts_with(two)) {
        pos_ += 2;
        return std::string(two);
      }
    }
    static constexpr std::string_view kOne = "(){}[],.+-*/=<>!";
    if (kOne.find(rest[0]) == std::string_view::npos) {
      const unsigned char byte = static_cast<unsigned char>(rest[0]);
      if (byte >= 0x20 && byte < 0x7F) fail("unexpected character '", rest[0], "'");
      fail("unexpected byte ", std::to_string(byte));
    }
    ++pos_;
    return std::string(1, rest[0]);
  }

  std::string_view text_;
  size_t pos_ = 0;
};

// ---- Parser ----------------------------------------------------------------

class Parser {
 public:
  explicit Parser(std::vector<Token> tokens) : tokens_(std::move(tokens)) {}

  std::unique_ptr<PredicateNode> parse() {
    std::unique_ptr<PredicateNode> root = predicate();
    if (peek().kind != Token::Kind::End) fail("unexpected " + describe(peek()) + " after the predicate");
    return root;
  }

 private:
  // One open nesting level for as long as it lives.
  class Level {
   public:
    explicit Level(Parser& parser) : parser_(parser) {
      if (++parser_.depth_ > kPXPredicateMaxNestingDepth) {
        --parser_.depth_;
        parser_.fail("nested more than " + std::to_string(kPXPredicateMaxNestingDepth) + " levels deep");
      }
    }
    ~Level() { --parser_.depth_; }
    Level(const Level&) = delete;
    Level& operator=(const Level&) = delete;

   private:
    Parser& parser_;
  };

  const Token& peek() const { return tokens_[pos_]; }
  const Token& next() { return tokens_[pos_ < tokens_.size() - 1 ? pos_++ : pos_]; }

  [[noreturn]] void fail(std::string message) const { throw ParseFailure{peek().offset, std::move(message)}; }

  static std::string describe(const Token& token) {
    switch (token.kind) {
      case Token::Kind::End:
        return "the end";
      case Token::Kind::Number:
        return "a number";
      case Token::Kind::String:
        return "a string";
      case Token::Kind::Variable:
        return "$" + token.text;
      default:
        return "'" + token.text + "'";
    }
  }

  bool isKeyword(const Token& token, std::string_view keyword) const {
    return token.kind == Token::Kind::Identifier && equalsIgnoringCase(token.text, keyword);
  }
  bool acceptKeyword(std::string_view keyword) {
    if (!isKeyword(peek(), keyword)) return false;
    next();
    return true;
  }
  bool isOperator(std::string_view spelling) const {
    return peek().kind == Token::Kind::Operator && peek().text == spelling;
  }
  bool acceptOperator(std::string_view spelling) {
    if (!isOperator(spelling)) return false;
    next();
    return true;
  }
  void expectOperator(std::string_view spelling) {
    if (!acceptOperator(spelling))
      fail("expected '" + std::string(spelling) + "', found " + describe(peek()));
  }

  // -- predicates --

  std::unique_ptr<PredicateNode> predicate() { return chain(PredicateNode::Kind::Or); }

  // OR over ANDs, AND over NOTs: n-ary, left to right.
  std::unique_ptr<PredicateNode> chain(PredicateNode::Kind kind) {
    const bool isOr = kind == PredicateNode::Kind::Or;
    auto part = [&] { return isOr ? chain(PredicateNode::Kind::And) : negation(); };
    std::unique_ptr<PredicateNode> first = part();
    auto more = [&] {
      return isOr ? (acceptKeyword("OR") || acceptOperator("||"))
                  : (acceptKeyword("AND") || acceptOperator("&&"));
    };
    if (!more()) return first;
    auto node = std::make_unique<PredicateNode>();
    node->kind = kind;
    node->children.push_back(std::move(first));
    do {
      node->children.push_back(part());
    } while (more());
    return node;
  }

  std::unique_ptr<PredicateNode> negation() {
    if (acceptKeyword("NOT") || acceptOperator("!")) {
      Level level(*this);
      auto node = std::make_unique<PredicateNode>();
      node->kind = PredicateNode::Kind::Not;
      node->children.push_back(negation());
      return node;
    }
    return primaryPredicate();
  }

  std::unique_ptr<PredicateNode> primaryPredicate() {
    if (isOperator("(") && !failedGroups_.contains(pos_)) {
      const size_t start = pos_;
      try {
        Level level(*this);
        next();
        std::unique_ptr<PredicateNode> inner = predicate();
        expectOperator(")");
        return inner;
      } catch (const ParseFailure& asPredicate) {
        failedGroups_.insert(start);
        pos_ = start;
        try {
          return comparison();
        } catch (const ParseFailure& asExpression) {
          throw asExpression.offset >= asPredicate.offset ? asExpression : asPredicate;
        }
      }
    }
    for (auto [word, kind] : {std::pair{"TRUEPREDICATE", PredicateNode::Kind::True},
                              std::pair{"FALSEPREDICATE", PredicateNode::Kind::False}}) {
      if (acceptKeyword(word)) {
        auto node = std::make_unique<PredicateNode>();
        node->kind = kind;
        return node;
      }
    }
    return comparison();
  }

  std::unique_ptr<PredicateNode> comparison() {
    auto node = std::make_unique<PredicateNode>();
    node->kind = PredicateNode::Kind::Comparison;
    if (acceptKeyword("ANY") || acceptKeyword("SOME")) {
      node->quantifier = Quantifier::Any;
    } else if (acceptKeyword("ALL")) {
      node->quantifier = Quantifier::All;
    } else if (acceptKeyword("NONE")) {
      node->quantifier = Quantifier::NoneOf;
    }
    node->lhs = expression();
    comparisonOperator(*node);
    node->rhs = expression();
    if (node->op == ComparisonOperator::Matches && node->rhs->kind == ExpressionNode::Kind::Constant &&
        node->rhs->constant.isString()) {
      node->regex = compileRegex(node->rhs->constant.stringValue(), node->options, &node->regexError);
    }
    return node;
  }

  void comparisonOperator(PredicateNode& node) {
    static constexpr std::pair<std::string_view, ComparisonOperator> kSymbols[] = {
        {"=", ComparisonOperator::Equal},
        {"==", ComparisonOperator::Equal},
        {"!=", ComparisonOperator::NotEqual},
        {"<>", ComparisonOperator::NotEqual},
        {"<", ComparisonOperator::Less},
        {"<=", ComparisonOperator::LessOrEqual},
        {"=<", ComparisonOperator::LessOrEqual},
        {">", ComparisonOperator::Greater},
        {">=", ComparisonOperator::GreaterOrEqual},
        {"=>", ComparisonOperator::GreaterOrEqual}};
    static constexpr std::pair<std::string_view, ComparisonOperator> kWords[] = {
        {"BEGINSWITH", ComparisonOperator::BeginsWith},
        {"ENDSWITH", ComparisonOperator::EndsWith},
        {"CONTAINS", ComparisonOperator::Contains},
        {"IN", ComparisonOperator::In},
        {"LIKE", ComparisonOperator::Like},
        {"MATCHES", ComparisonOperator::Matches}};
    const Token& token = peek();
    bool found = false;
    if (token.kind == Token::Kind::Operator) {
      for (auto [spelling, op] : kSymbols) {
        if (token.text == spelling) node.op = op, found = true;
      }
    } else if (isKeyword(token, "BETWEEN")) {
      next();
      node.op = ComparisonOperator::Between;
      return;  // no modifiers
    } else {
      for (auto [spelling, op] : kWords) {
        if (isKeyword(token, spelling)) node.op = op, found = true;
      }
    }
    if (!found) fail("expected a comparison operator, found " + describe(token));
    next();
    if (!acceptOperator("[")) return;
    const Token& flags = peek();
    if (flags.kind != Token::Kind::Identifier) fail("expected modifier letters (c, d, n, l) inside '[ ]'");
    for (char letter : flags.text) {
      switch (letter | 0x20) {
        case 'c':
          node.options |= PXCaseInsensitiveSearch;
          break;
        case 'd':
          node.options |= PXDiacriticInsensitiveSearch;
          break;
        case 'n':
        case 'l':
          break;
        default:
          fail("unknown modifier '" + std::string(1, letter) + "'");
      }
      node.flags.push_back(static_cast<char>(letter | 0x20));
    }
    next();
    expectOperator("]");
  }

  // -- expressions --

  Expression expression() { return arithmetic(0); }

  // Level 0: + -, level 1: * /, level 2: ** ; n-ary, left to right.
  Expression arithmetic(int level) {
    static constexpr std::pair<std::string_view, char> kLevels[3][2] = {
        {{"+", '+'}, {"-", '-'}}, {{"*", '*'}, {"/", '/'}}, {{"**", '^'}, {"**", '^'}}};
    auto operand = [&] { return level < 2 ? arithmetic(level + 1) : unary(); };
    Expression first = operand();
    auto op = [&]() -> char {
      for (auto [spelling, symbol] : kLevels[level]) {
        if (acceptOperator(spelling)) return symbol;
      }
      return 0;
    };
    char symbol = op();
    if (!symbol) return first;
    auto node = std::make_unique<ExpressionNode>();
    node->kind = ExpressionNode::Kind::Arithmetic;
    node->operands.push_back(std::move(first));
    do {
      node->ops.push_back(symbol);
      node->operands.push_back(operand());
    } while ((symbol = op()) != 0);
    return node;
  }

  Expression unary() {
    if (!acceptOperator("-")) return postfix();
    Level level(*this);
    Expression operand = unary();
    // A literal's sign is part of the literal: "-1" is the number -1.
    if (operand->kind == ExpressionNode::Kind::Constant && operand->constant.isNumber()) {
      PXValue& v = operand->constant;
      switch (v.kind()) {
        case PXValue::Kind::Double:
          v = -v.doubleValue();
          break;
        case PXValue::Kind::UInt:
          if (v.unsignedLongLongValue() <= 0x8000000000000000ull) {
            v = static_cast<long long>(0 - v.unsignedLongLongValue());
          } else {
            v = -v.doubleValue();
          }
          break;
        default:
          if (v.longLongValue() == std::numeric_limits<int64_t>::min()) {
            v = static_cast<unsigned long long>(0x8000000000000000ull);
          } else {
            v = static_cast<long long>(-v.longLongValue());
          }
          break;
      }
      return operand;
    }
    auto node = std::make_unique<ExpressionNode>();
    node->kind = ExpressionNode::Kind::Negate;
    node->operands.push_back(std::move(operand));
    return node;
  }

  // A key path component: a name that is not reserved, "#name", or "@name".
  bool isComponent(const Token& token) const {
    return (token.kind == Token::Kind::Identifier && !isReserved(token.text)) ||
           token.kind == Token::Kind::EscapedIdentifier || token.kind == Token::Kind::AtKey;
  }
  // ".a.b.c" after an expression, appended to `path`.
  void components(std::string& path) {
    while (isOperator(".") && isComponent(tokens_[pos_ + 1])) {
      next();
      if (!path.empty()) path.push_back('.');
      path += next().text;
    }
    if (isOperator(".")) {
      next();
      fail("expected a key after '.', found " + describe(peek()));
    }
  }

  Expression postfix() {
    Expression base = primaryExpression();
    if (base->kind == ExpressionNode::Kind::KeyPath) components(base->name);
    if (base->kind == ExpressionNode::Kind::Self && isOperator(".")) {
      base->kind = ExpressionNode::Kind::KeyPath;  // SELF.x is x
      components(base->name);
    }
    std::vector<PostfixStep> steps;
    for (;;) {
      PostfixStep step;
      if (isOperator(".")) {
        step.kind = PostfixStep::Kind::KeyPath;
        components(step.keyPath);
      } else if (isOperator("[")) {
        Level level(*this);
        next();
        if (acceptKeyword("FIRST")) {
          step.kind = PostfixStep::Kind::First;
        } else if (acceptKeyword("LAST")) {
          step.kind = PostfixStep::Kind::Last;
        } else if (acceptKeyword("SIZE")) {
          step.kind = PostfixStep::Kind::Size;
        } else {
          step.kind = PostfixStep::Kind::Index;
          step.index = expression();
        }
        expectOperator("]");
      } else {
        break;
      }
      steps.push_back(std::move(step));
    }
    if (steps.empty()) return base;
    auto node = std::make_unique<ExpressionNode>();
    node->kind = ExpressionNode::Kind::Postfix;
    node->operands.push_back(std::move(base));
    node->steps = std::move(steps);
    return node;
  }

  Expression primaryExpression() {
    auto node = std::make_unique<ExpressionNode>();
    const Token& token = peek();
    switch (token.kind) {
      case Token::Kind::Number:
        node->constant = next().number;
        return node;
      case Token::Kind::String:
        node->constant = PXValue(next().text);
        return node;
      case Token::Kind::Variable:
        node->kind = ExpressionNode::Kind::Variable;
        node->name = next().text;
        return node;
      case Token::Kind::EscapedIdentifier:
      case Token::Kind::AtKey:
        node->kind = ExpressionNode::Kind::KeyPath;
        node->name = next().text;
        return node;
      case Token::Kind::Identifier:
        if (!isReserved(token.text)) {
          node->kind = ExpressionNode::Kind::KeyPath;
          node->name = next().text;
          return node;
        }
        if (acceptKeyword("SELF")) {
          node->kind = ExpressionNode::Kind::Self;
        } else if (acceptKeyword("YES") || acceptKeyword("TRUE")) {
          node->constant = true;
        } else if (acceptKeyword("NO") || acceptKeyword("FALSE")) {
          node->constant = false;
        } else if (acceptKeyword("NULL") || acceptKeyword("NIL")) {
          // the absent value: the default constant
        } else {
          fail("unexpected keyword " + describe(token));
        }
        return node;
      case Token::Kind::Operator:
        if (isOperator("(")) {
          Level level(*this);
          next();
          Expression inner = expression();
          expectOperator(")");
          return inner;
        }
        if (isOperator("{")) {
          Level level(*this);
          next();
          node->kind = ExpressionNode::Kind::Array;
          if (!acceptOperator("}")) {
            do {
              node->operands.push_back(expression());
            } while (acceptOperator(","));
            expectOperator("}");
          }
          return node;
        }
        break;
      case Token::Kind::End:
        break;
    }
    fail("expected an expression, found " + describe(token));
  }

  std::vector<Token> tokens_;
  size_t pos_ = 0;
  size_t depth_ = 0;
  std::unordered_set<size_t> failedGroups_;  // "(" positions that do not open a predicate
};

// ---- Printing --------------------------------------------------------------

void printString(std::string& out, std::string_view text) {
  out.push_back('"');
  for (char c : text) {
    switch (c) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\t':
        out += "\\t";
        break;
      case '\r':
        out += "\\r";
        break;
      default:
        if (static_cast<unsigned char>(c) < 0x20) {
          static constexpr char kHex[] = "0123456789abcdef";
          out += "\\u00";
          out.push_back(kHex[(c >> 4) & 0xF]);
          out.push_back(kHex[c & 0xF]);
        } else {
          out.push_back(c);
        }
    }
  }
  out.push_back('"');
}

void printConstant(std::string& out, const PXValue& value) {
  switch (value.kind()) {
    case PXValue::Kind::Absent:
    case PXValue::Kind::Null:
      out += "NULL";
      return;
    case PXValue::Kind::Bool:
      out += value.boolValue() ? "YES" : "NO";
      return;
    case PXValue::Kind::Int:
      out += std::to_string(value.longLongValue());
      return;
    case PXValue::Kind::UInt:
      out += std::to_string(value.unsignedLongLongValue());
      return;
    case PXValue::Kind::Double: {
      const double d = value.doubleValue();
      if (std::isinf(d)) {
        out += d < 0 ? "-1e999" : "1e999";
        return;
      }
      char buffer[64];
      const std::to_chars_result r = std::to_chars(buffer, buffer + sizeof buffer, d);
      std::string_view text(buffer, static_cast<size_t>(r.ptr - buffer));
      out += text;
      // Keep it a double when read back: "2" would come back as an integer.
      if (text.find_first_of(".e") == std::string_view::npos) out += ".0";
      return;
    }
    case PXValue::Kind::String:
      printString(out, value.stringValue());
      return;
    default:  // constants are only the kinds above
      printString(out, value.description().view());
      return;
  }
}

void printKeyPath(std::string& out, std::string_view path) {
  for (size_t start = 0;;) {
    const size_t dot = path.find('.', start);
    const std::string_view component = path.substr(start, dot - start);
    if (isReserved(component)) out.push_back('#');
    out += component;
    if (dot == std::string_view::npos) return;
    out.push_back('.');
    start = dot + 1;
  }
}

void printExpression(std::string& out, const ExpressionNode& node);

void printOperand(std::string& out, const ExpressionNode& node) {
  const bool group = node.kind == ExpressionNode::Kind::Arithmetic ||
                     node.kind == ExpressionNode::Kind::Negate ||
                     (node.kind == ExpressionNode::Kind::Constant && node.constant.isNumber());
  if (group) out.push_back('(');
  printExpression(out, node);
  if (group) out.push_back(')');
}

void printExpression(std::string& out, const ExpressionNode& node) {
  switch (node.kind) {
    case ExpressionNode::Kind::Constant:
      printConstant(out, node.constant);
      return;
    case ExpressionNode::Kind::Variable:
      out += "$" + node.name;
      return;
    case ExpressionNode::Kind::KeyPath:
      printKeyPath(out, node.name);
      return;
    case ExpressionNode::Kind::Self:
      out += "SELF";
      return;
    case ExpressionNode::Kind::Array:
      out.push_back('{');
      for (size_t i = 0; i < node.operands.size(); ++i) {
        if (i) out += ", ";
        printExpression(out, *node.operands[i]);
      }
      out.push_back('}');
      return;
    case ExpressionNode::Kind::Negate:
      out.push_back('-');
      if (node.operands[0]->kind == ExpressionNode::Kind::Arithmetic) {
        printOperand(out, *node.operands[0]);
      } else {
        printExpression(out, *node.operands[0]);
      }
      return;
    case ExpressionNode::Kind::Arithmetic:
      for (size_t i = 0; i < node.operands.size(); ++i) {
        if (i) {
          const char op = node.ops[i - 1];
          out += op == '^' ? " ** " : std::string{' ', op, ' '};
        }
        if (node.operands[i]->kind == ExpressionNode::Kind::Arithmetic) {
          printOperand(out, *node.operands[i]);
        } else {
          printExpression(out, *node.operands[i]);
        }
      }
      return;
    case ExpressionNode::Kind::Postfix:
      printOperand(out, *node.operands[0]);
      for (const PostfixStep& step : node.steps) {
        switch (step.kind) {
          case PostfixStep::Kind::KeyPath:
            out.push_back('.');
            printKeyPath(out, step.keyPath);
            break;
          case PostfixStep::Kind::Index:
            out.push_back('[');
            printExpression(out, *step.index);
            out.push_back(']');
            break;
          case PostfixStep::Kind::First:
            out += "[FIRST]";
            break;
          case PostfixStep::Kind::Last:
            out += "[LAST]";
            break;
          case PostfixStep::Kind::Size:
            out += "[SIZE]";
            break;
        }
      }
      return;
  }
}

const char* operatorSpelling(ComparisonOperator op) {
  switch (op) {
    case ComparisonOperator::Equal:
      return "==";
    case ComparisonOperator::NotEqual:
      return "!=";
    case ComparisonOperator::Less:
      return "<";
    case ComparisonOperator::LessOrEqual:
      return "<=";
    case ComparisonOperator::Greater:
      return ">";
    case ComparisonOperator::GreaterOrEqual:
      return ">=";
    case ComparisonOperator::BeginsWith:
      return "BEGINSWITH";
    case ComparisonOperator::EndsWith:
      return "ENDSWITH";
    case ComparisonOperator::Contains:
      return "CONTAINS";
    case ComparisonOperator::In:
      return "IN";
    case ComparisonOperator::Like:
      return "LIKE";
    case ComparisonOperator::Matches:
      return "MATCHES";
    case ComparisonOperator::Between:
      return "BETWEEN";
  }
  return "==";
}

void printPredicate(std::string& out, const PredicateNode& node) {
  auto part = [&](const PredicateNode& child) {
    const bool group = child.kind == PredicateNode::Kind::And || child.kind == PredicateNode::Kind::Or;
    if (group) out.push_back('(');
    printPredicate(out, child);
    if (group) out.push_back(')');
  };
  switch (node.kind) {
    case PredicateNode::Kind::True:
      out += "TRUEPREDICATE";
      return;
    case PredicateNode::Kind::False:
      out += "FALSEPREDICATE";
      return;
    case PredicateNode::Kind::Not:
      out += "NOT ";
      part(*node.children[0]);
      return;
    case PredicateNode::Kind::And:
    case PredicateNode::Kind::Or:
      for (size_t i = 0; i < node.children.size(); ++i) {
        if (i) out += node.kind == PredicateNode::Kind::And ? " AND " : " OR ";
        part(*node.children[i]);
      }
      return;
    case PredicateNode::Kind::Comparison:
      switch (node.quantifier) {
        case Quantifier::Any:
          out += "ANY ";
          break;
        case Quantifier::All:
          out += "ALL ";
          break;
        case Quantifier::NoneOf:
          out += "NONE ";
          break;
        case Quantifier::None:
          break;
      }
      printExpression(out, *node.lhs);
      out.push_back(' ');
      out += operatorSpelling(node.op);
      if (!node.flags.empty()) out += "[" + node.flags + "]";
      out.push_back(' ');
      printExpression(out, *node.rhs);
      return;
  }
}

}  // namespace

std::unique_ptr<PredicateNode> parsePredicateFormat(std::string_view format) {
  try {
    if (format.size() > kPXPredicateMaxFormatLength) {
      throw ParseFailure{kPXPredicateMaxFormatLength,
                         "longer than " + std::to_string(kPXPredicateMaxFormatLength) + " bytes"};
    }
    return Parser(Lexer(format).tokens()).parse();
  } catch (const ParseFailure& failure) {
    throw PXException(
        kPXInvalidArgumentException,
        PXFormat("Unable to parse the format string \"%@\" (at offset %lu: %@)", PXValue(format),
                 static_cast<unsigned long>(failure.offset), PXValue(failure.message)));
  }
}

std::string formatPredicate(const PredicateNode& node) {
  std::string out;
  printPredicate(out, node);
  return out;
}

std::shared_ptr<const icu::RegexPattern> compileRegex(std::string_view pattern, unsigned options,
                                                      std::string* error) {
  const std::string text = (options & PXDiacriticInsensitiveSearch)
                               ? PXStringFold(pattern, PXDiacriticInsensitiveSearch)
                               : std::string(pattern);
  UErrorCode status = U_ZERO_ERROR;
  UParseError where{};
  const uint32_t flags = (options & PXCaseInsensitiveSearch) ? UREGEX_CASE_INSENSITIVE : 0;
  std::shared_ptr<const icu::RegexPattern> compiled(
      icu::RegexPattern::compile(icu::UnicodeString::fromUTF8(text), flags, where, status));
  if (U_FAILURE(status) || !compiled) {
    if (error) {
      *error = PXFormat("Can't do regex matching, reason: Can't open pattern %s (string %@, offset %d)",
                        u_errorName(status), PXValue(pattern), where.offset)
                   .str();
    }
    return nullptr;
  }
  return compiled;
}

}  // namespace pxkit::internal
