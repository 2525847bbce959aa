// PXKit — the rule checker: questions about the machine as predicate texts.
//
// A rule is a predicate text over facts of the machine. Facts come from
// function providers (PXRuleCheckerFunction) in two forms:
//   - calls "${identifier(arguments)}" anywhere in the text, replaced before the
//     predicate is parsed: "${filesystem(do=exists;absPath=/opt/editor)} == YES";
//   - dotted key paths whose first component is a provider's prefix:
//     "version.os", "version.hostApplicationShort".
// The checker only parses, routes and substitutes; docs/rules.md has the
// language, every provider's arguments and ready-made rules.
//
//   PXRuleChecker* checker = PXRuleChecker::sharedChecker();
//   std::optional<PXException> error;
//   if (checker->runCheck("version.kernel BEGINSWITH '6.' AND ${version(of=os;greaterThan=11)} == YES",
//   &error)) ... if (error) PXLog("%@", error->description());          // a rule that could not be evaluated
//   PXValue os = checker->computeFunction("version.os");  // "12" on Debian 12; absent when unknown
//
// Call syntax, inside "${" ... "}":
//   - an identifier, optionally followed by an argument list in parentheses;
//     arguments are separated by ";", each "name=value" or a bare "name";
//   - "\" makes the next character literal (and is dropped); "'" or "\"" opens
//     a quoted stretch up to the same quote character, in which everything is
//     literal (the quotes are dropped);
//   - outside the parentheses "=", ")" and ";" belong to the identifier; inside,
//     a second "(" is ordinary, and so is a second "=" in a value;
//   - calls do not nest: the first "}" neither quoted nor escaped ends the call.
// An argument list with a single bare name passes that name as a string
// ("${version(os)}" passes "os"); any other list passes a dictionary (a bare
// name maps to the null value); no parentheses pass absent. A call whose
// identifier is empty or names no provider answers its "fallbackValue"
// argument (kPXRuleCheckerFallbackValueKey), or absent.
//
// The functions provided by default (defaultFunctions), in this order:
//   version      (PXRuleCheckerVersionFunction, prefix "version")
//   application  (PXRuleCheckerApplicationFunction, prefix "application")
//   filesystem   (PXRuleCheckerFilesystemFunction, "${...}" calls only)
//   sysctl       (PXRuleCheckerSysCtlFunction, prefix "sysctl")
//   iokit        (PXRuleCheckerIOKitFunction, "${...}" calls only)
//
// Failures never leave the checker as exceptions: they come back as absent
// values, NO, the text "NULL" spliced into a rule, an exception handed out
// through runCheck's out-parameter, and these log lines:
//   "Unterminated function: %@"                               (the rest of the text from the "${")
//   "Error processing function (more than one result): %@"    (computeFunction's expression)
//   "Error processing function: %@"
//   "%s: caught exception: %@"                                ("-[PXRuleChecker runCheck:errorOccured:]")
//
// Thread safety: the accessors of `functions` and `kvoValues` are atomic, but
// the containers themselves are plain mutable ones: a checker is meant to be
// used from one thread at a time (the shared one too). Nothing is locked while
// a provider runs.
#pragma once

#include <pxkit/export.h>
#include <pxkit/objects/PXArray.h>
#include <pxkit/objects/PXDictionary.h>
#include <pxkit/objects/PXException.h>
#include <pxkit/objects/PXObject.h>
#include <pxkit/rules/PXRuleCheckerFunction.h>

#include <mutex>
#include <optional>
#include <string_view>

// The argument name that supplies a call's fallback result: "fallbackValue".
PXKIT_EXPORT extern const char* const kPXRuleCheckerFallbackValueKey;

class PXKIT_EXPORT PXRuleChecker : public PXObject {
  PX_DECLARE_CLASS(PXRuleChecker)

 public:
  // The process-wide checker with the default functions, made on first use and
  // never released. Never null.
  static PXRuleChecker* sharedChecker();
  // A new array with one fresh instance of each default provider, in the order
  // listed above.
  static PXRef<PXArray> defaultFunctions();
  // A new checker; with `withDefaultFunctions`, holding defaultFunctions().
  static PXRef<PXRuleChecker> ruleCheckerWithDefaultFunctions(bool withDefaultFunctions);

  // An empty checker: no functions, no kvoValues.
  PXRuleChecker();

  // ---- The registry ------------------------------------------------------------
  // Appends one provider (an empty reference is ignored). No duplicate check:
  // the first provider of an identifier or prefix shadows later ones.
  void addFunction(const PXRef<PXRuleCheckerFunction>& function);
  // Appends every PXRuleCheckerFunction of `functions`, in order (other values are skipped).
  void addFunctions(const PXArray& functions);
  // The first provider whose functionID equals `identifier` exactly, or an empty reference.
  PXRef<PXRuleCheckerFunction> functionForIdentifier(std::string_view identifier) const;

  // ---- Rules -----------------------------------------------------------------
  // The rule with every "${...}" call replaced by its result.
  // With `substituteResultsWithVariables`, it receives a new dictionary (also
  // when no call is found), each present result is stored there under
  // "fnc<N>" and the text gets "$fnc<N>" (N counts the calls from 0, in
  // order, with gaps where a result was absent); providers are asked for typed
  // values. Without it, results are spliced into the text as their "%@" text
  // (providers are asked for strings). An absent result, or the null value in
  // text, becomes "NULL". A call without its closing "}" logs
  // "Unterminated function: %@" and the text is returned as processed so far.
  PXString preprocessCheckRule(std::string_view rule,
                               PXRef<PXMutableDictionary>* substituteResultsWithVariables = nullptr) const;
  // The value of one expression: a single call ("${version(os)}"; text around
  // it is dropped) or a key path ("version.os"). Typed results. Absent when
  // the provider answers nothing, when the expression holds more than one
  // call that answers (logged), or when a key path names nothing the checker
  // knows (the undefined-key exception is not passed on).
  PXValue computeFunction(std::string_view expression) const;
  // Whether `rule` holds for this checker. Calls become variables, key paths
  // are asked of valueForKeyPath. NO for an absent rule; NO, with the
  // exception in `errorOccured` and the "%s: caught exception: %@" log line,
  // when the rule cannot be parsed or evaluated. `errorOccured` is reset
  // first; it may be null.
  [[nodiscard]] bool runCheck(const PXString& rule, std::optional<PXException>* errorOccured = nullptr) const;

  // ---- Key-value coding -----------------------------------------------------------
  // A dotted path whose first component is a provider's functionKeyPathPrefix
  // goes to the first such provider, with the rest of the path (dots
  // included) and returnString false: its answer, even absent, is the value.
  // Otherwise an entry of kvoValues under the whole path, else the ordinary
  // lookup, which raises the undefined-key PXException for unknown keys.
  PXValue valueForKeyPath(std::string_view keyPath) const override;
  // kvoValues first, then the ordinary lookup (declared properties: "functions",
  // "kvoValues"; other keys raise).
  PXValue valueForKey(std::string_view key) const override;

  // ---- Properties ----------------------------------------------------------------------
  // The registered providers in registration order. Never null.
  PXRef<PXMutableArray> functions() const { return getAtomic(lock_, functions_); }
  void setFunctions(PXRef<PXMutableArray> functions);
  // Fixed answers by key or key path; null until a caller sets it.
  PXRef<PXMutableDictionary> kvoValues() const { return getAtomic(lock_, kvoValues_); }
  void setKvoValues(PXRef<PXMutableDictionary> values) {
    setObservable(lock_, kvoValues_, std::move(values), "kvoValues");
  }

 private:
  mutable std::mutex lock_;
  PXRef<PXMutableArray> functions_;
  PXRef<PXMutableDictionary> kvoValues_;
};
