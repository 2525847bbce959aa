// The "${...}" call scanner; see RuleCallSyntax.h.
#include "rules/internal/RuleCallSyntax.h"

#include <optional>

namespace pxkit::rules {

RuleCall scanRuleCall(std::string_view text, size_t start, QuoteStack& quotes) {
  RuleCall call;
  std::string buffer;
  std::optional<std::string> identifier;
  std::optional<std::string> argumentName;
  bool inParentheses = false;
  bool escaped = false;

  for (size_t i = start; i < text.size(); ++i) {
    const char c = text[i];
    if (escaped) {
      buffer += c;
      escaped = false;
    } else if (c == '}' && quotes.empty()) {
      call.terminated = true;
      call.end = i;
      break;
    } else if (!quotes.empty()) {
      if (c == quotes.back()) {
        quotes.pop_back();
      } else {
        buffer += c;
      }
    } else if (c == '\\') {
      escaped = true;
    } else if (c == '"' || c == '\'') {
      quotes.push_back(c);
    } else if (c == '(' && !inParentheses) {
      inParentheses = true;
      // An empty buffer leaves the identifier unsaved: "${(fallbackValue=x)}" has none.
      if (!identifier && !buffer.empty()) identifier = std::exchange(buffer, {});
    } else if (!inParentheses) {
      buffer += c;
    } else if (c == '=' && !argumentName) {
      argumentName = std::exchange(buffer, {});
    } else if (c != ')' && c != ';') {
      buffer += c;
    } else {
      // ")" or ";" ends an argument: "a", "a=" and "a=b" give a→null, a→null, a→"b".
      std::optional<std::string> value;
      if (!buffer.empty()) {
        if (argumentName) {
          value = std::move(buffer);
        } else {
          argumentName = std::move(buffer);
        }
      }
      buffer.clear();
      if (!call.arguments) call.arguments = PXMutableDictionary::dictionary();
      if (argumentName) {
        call.arguments->setObject(value ? PXValue(*value) : PXValue::null(), PXValue(*argumentName));
      }
      argumentName.reset();
      if (c == ')') inParentheses = false;
    }
  }
  if (!call.terminated) {
    call.arguments = {};
    return call;
  }
  // Text after ")" and before "}" is dropped once an identifier was saved.
  call.identifier = identifier ? std::move(*identifier) : std::move(buffer);
  return call;
}

PXValue ruleCallArgument(const RuleCall& call) {
  if (!call.arguments) return {};
  if (call.arguments->count() == 1) {
    const PXDictionary::Entry& only = call.arguments->entries()[0];
    if (only.second.isNull()) return only.first;
  }
  return PXValue(PXRef<PXDictionary>(call.arguments));
}

}  // namespace pxkit::rules
