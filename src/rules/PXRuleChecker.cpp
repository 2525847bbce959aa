// The rule checker: the registry, "${...}" preprocessing, computeFunction,
// runCheck and key lookup.
#include <pxkit/objects/PXFormat.h>
#include <pxkit/platform/PXLog.h>
#include <pxkit/rules/PXPredicate.h>
#include <pxkit/rules/PXRuleChecker.h>
#include <pxkit/rules/PXRuleCheckerApplicationFunction.h>
#include <pxkit/rules/PXRuleCheckerFilesystemFunction.h>
#include <pxkit/rules/PXRuleCheckerIOKitFunction.h>
#include <pxkit/rules/PXRuleCheckerSysCtlFunction.h>
#include <pxkit/rules/PXRuleCheckerVersionFunction.h>

#include <string>

#include "rules/internal/RuleCallSyntax.h"

const char* const kPXRuleCheckerFallbackValueKey = "fallbackValue";

namespace {

constexpr std::string_view kCallOpening = "${";

// The provider a registry entry holds, or null for any other value.
PXRuleCheckerFunction* providerOf(const PXValue& value) {
  PXObject* object = value.objectPointer();
  if (!object || !object->isKindOfClass(PXRuleCheckerFunction::classObject())) return nullptr;
  return static_cast<PXRuleCheckerFunction*>(object);
}

// A result as text in a rule: its "%@" text; absent and null read as the null constant.
std::string spliceText(const PXValue& result) {
  if (!result || result.isNull()) return "NULL";
  if (result.isString()) return std::string(result.stringValue());
  return result.description().str();
}

}  // namespace

PX_DEFINE_CLASS(PXRuleChecker, PXObject, [](PXClassBuilder<PXRuleChecker>& c) {
  c.computed("functions", &PXRuleChecker::functions, &PXRuleChecker::setFunctions,
             PXPropertyOwnership::Retain);
  c.computed("kvoValues", &PXRuleChecker::kvoValues, &PXRuleChecker::setKvoValues,
             PXPropertyOwnership::Retain);
})

// ---- Made once, and the defaults ------------------------------------------------

PXRuleChecker* PXRuleChecker::sharedChecker() {
  // A function-local static: its first-use guard costs nothing after the first call.
  static PXRuleChecker* const shared = ruleCheckerWithDefaultFunctions(true).detach();
  return shared;
}

PXRef<PXArray> PXRuleChecker::defaultFunctions() {
  return PXArray::arrayWithObjects({
      PXValue(PXRuleCheckerVersionFunction::function()),
      PXValue(PXRuleCheckerApplicationFunction::function()),
      PXValue(PXRuleCheckerFilesystemFunction::function()),
      PXValue(PXRuleCheckerSysCtlFunction::function()),
      PXValue(PXRuleCheckerIOKitFunction::function()),
  });
}

PXRef<PXRuleChecker> PXRuleChecker::ruleCheckerWithDefaultFunctions(bool withDefaultFunctions) {
  PXRef<PXRuleChecker> checker = PXMake<PXRuleChecker>();
  if (withDefaultFunctions) checker->addFunctions(*defaultFunctions());
  return checker;
}

PXRuleChecker::PXRuleChecker() : functions_(PXMutableArray::array()) {}

// ---- Registry ---------------------------------------------------------------------

void PXRuleChecker::setFunctions(PXRef<PXMutableArray> functions) {
  if (!functions) functions = PXMutableArray::array();
  setObservable(lock_, functions_, std::move(functions), "functions");
}

void PXRuleChecker::addFunction(const PXRef<PXRuleCheckerFunction>& function) {
  if (function) functions()->addObject(PXValue(function));
}

void PXRuleChecker::addFunctions(const PXArray& functions) {
  PXRef<PXMutableArray> registry = this->functions();
  for (const PXValue& value : functions) {
    if (providerOf(value)) registry->addObject(value);
  }
}

PXRef<PXRuleCheckerFunction> PXRuleChecker::functionForIdentifier(std::string_view identifier) const {
  PXRef<PXMutableArray> registry = functions();
  for (const PXValue& value : *registry) {
    PXRuleCheckerFunction* function = providerOf(value);
    if (function && function->functionID() == identifier) return PXRef<PXRuleCheckerFunction>(function);
  }
  return {};
}

// ---- Preprocessing ------------------------------------------------------------

PXString PXRuleChecker::preprocessCheckRule(
    std::string_view rule, PXRef<PXMutableDictionary>* substituteResultsWithVariables) const {
  std::string text(rule);
  PXRef<PXMutableDictionary> variables;
  if (substituteResultsWithVariables) {
    variables = PXMutableDictionary::dictionary();
    *substituteResultsWithVariables = variables;
  }
  pxkit::rules::QuoteStack quotes;
  size_t searchStart = 0;
  long callNumber = 0;
  for (;;) {
    const size_t opening = text.find(kCallOpening, searchStart);
    if (opening == std::string::npos) return PXString(text);
    const size_t bodyStart = opening + kCallOpening.size();
    pxkit::rules::RuleCall call;
    if (bodyStart < text.size()) call = pxkit::rules::scanRuleCall(text, bodyStart, quotes);
    if (!call.terminated) {
      PXLog("Unterminated function: %@", std::string_view(text).substr(opening));
      return PXString(text);
    }

    PXValue result;
    PXRef<PXRuleCheckerFunction> function;
    if (!call.identifier.empty()) function = functionForIdentifier(call.identifier);
    if (function) {
      // No fallback when a provider exists: its answer, even absent, is the result.
      result = function->resultFor(pxkit::rules::ruleCallArgument(call), /*returnString=*/!variables);
    } else if (call.arguments) {
      result = call.arguments->objectForKey(kPXRuleCheckerFallbackValueKey);
    }

    std::string inserted;
    if (variables && result) {
      inserted = PXFormat("$fnc%ld", callNumber).str();
      variables->setObject(result, PXValue(PXFormat("fnc%ld", callNumber)));
    } else {
      inserted = spliceText(result);
    }
    text.replace(opening, call.end + 1 - opening, inserted);
    // Kept on purpose: the search goes on from the previous start moved by the
    // inserted length, not from the end of the call, so a "${" that a result
    // brings in, or pulls within reach, is expanded on a later turn.
    searchStart += inserted.size();
    ++callNumber;
  }
}

// ---- Computing one expression ------------------------------------------------------

PXValue PXRuleChecker::computeFunction(std::string_view expression) const {
  if (expression.starts_with('$')) {
    PXRef<PXMutableDictionary> variables;
    (void)preprocessCheckRule(expression, &variables);
    if (!variables) {
      PXLog("Error processing function: %@", expression);
      return {};
    }
    if (variables->count() >= 2) {
      PXLog("Error processing function (more than one result): %@", expression);
      return {};
    }
    if (variables->count() == 0) return {};
    return variables->entries().back().second;
  }
  try {
    return valueForKeyPath(expression);
  } catch (const PXException&) {
    // An unknown key answers nothing here; runCheck is where it is reported.
    return {};
  }
}

// ---- Checking a rule -----------------------------------------------------------

bool PXRuleChecker::runCheck(const PXString& rule, std::optional<PXException>* errorOccured) const {
  if (!rule) return false;
  if (errorOccured) errorOccured->reset();
  PXRef<PXMutableDictionary> variables;
  const PXString text = preprocessCheckRule(rule.view(), &variables);
  try {
    PXRef<PXPredicate> predicate = PXPredicate::predicateWithFormat(text.view());
    // The checker itself is the object: bare key paths come back to valueForKeyPath.
    return predicate->evaluateWithObject(PXValue(PXRef<PXObject>(const_cast<PXRuleChecker*>(this))),
                                         variables.get());
  } catch (const PXException& exception) {
    if (errorOccured) *errorOccured = exception;
    PXLog("%s: caught exception: %@", "-[PXRuleChecker runCheck:errorOccured:]", exception.description());
    return false;
  }
}

// ---- Key lookup ------------------------------------------------------------------

PXValue PXRuleChecker::valueForKeyPath(std::string_view keyPath) const {
  const size_t dot = keyPath.find('.');
  if (dot != std::string_view::npos) {
    const std::string_view prefix = keyPath.substr(0, dot);
    PXRef<PXMutableArray> registry = functions();
    for (const PXValue& value : *registry) {
      PXRuleCheckerFunction* function = providerOf(value);
      if (function && function->functionKeyPathPrefix() == prefix) {
        return function->resultFor(PXValue(keyPath.substr(dot + 1)), /*returnString=*/false);
      }
    }
  }
  if (PXRef<PXMutableDictionary> fixed = kvoValues()) {
    if (const PXValue* value = fixed->findStringKey(keyPath)) return *value;
  }
  return PXObject::valueForKeyPath(keyPath);
}

PXValue PXRuleChecker::valueForKey(std::string_view key) const {
  if (PXRef<PXMutableDictionary> fixed = kvoValues()) {
    if (const PXValue* value = fixed->findStringKey(key)) return *value;
  }
  return PXObject::valueForKey(key);
}
