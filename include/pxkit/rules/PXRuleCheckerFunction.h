// PXKit — a provider of facts for rules.
//
// Every fact a rule can ask about comes from a function provider: an object
// with an identifier (the name in a "${name(arguments)}" call), an optional key
// path prefix (the first component of a dotted key path such as "version.os")
// and one operation, resultFor, that computes a result from an argument.
//
// A provider is either a plain PXRuleCheckerFunction carrying a callback (made
// ad hoc by a host) or a subclass that overrides resultFor (the kit's own
// providers: PXRuleCheckerVersionFunction, PXRuleCheckerFilesystemFunction).
//
//   auto answer = PXRuleCheckerFunction::functionWithFunctionID(
//       "answer", "answer", [](PXRuleCheckerFunction*, const PXValue& argument, bool returnString) -> PXValue
//       {
//         if (argument.isString() && argument.stringValue() == "life") return returnString ? PXValue("42") :
//         42; return {};
//       });
//   PXRuleChecker::sharedChecker()->addFunction(answer);
//   // "${answer(life)} == 42" and "answer.life == 42" are now rules that hold.
//
// The argument a provider receives is one of three kinds, and every provider
// accepts all three:
//   - absent: "${name}" without parentheses, or a call whose list never closed;
//   - a string: the rest of a dotted key path after the prefix ("os",
//     "integer.hw.physicalcpu"), or the single bare argument of "${name(arg)}";
//   - a PXDictionary from argument name to value (a string, or the null value
//     for a bare name): "${name(a=1;b)}", "${name()}" (empty).
// `returnString` is true when the result is spliced into rule text: the
// provider should then answer a string. Otherwise it answers a typed value
// (number, string, date, ...). Absent means "no answer".
//
// Thread safety: the three properties are atomic (any thread). resultFor runs
// on the caller's thread; the kit's providers keep no mutable state, a
// callback must be as thread-safe as its callers need.
#pragma once

#include <pxkit/export.h>
#include <pxkit/objects/PXObject.h>
#include <pxkit/objects/PXString.h>
#include <pxkit/objects/PXValue.h>

#include <functional>
#include <mutex>

class PXKIT_EXPORT PXRuleCheckerFunction : public PXObject {
  PX_DECLARE_CLASS(PXRuleCheckerFunction)

 public:
  // The callback of the block form: (the provider itself, the argument, returnString) → result or absent.
  using FunctionBlock =
      std::function<PXValue(PXRuleCheckerFunction* function, const PXValue& argument, bool returnString)>;

  // A new provider with no identifier, prefix or callback ("+function"). Each
  // subclass has its own `function()` that makes one of its kind.
  static PXRef<PXRuleCheckerFunction> function();
  // A new block-form provider ("+functionWithFunctionID:functionKeyPathPrefix:functionBlock:").
  // An absent prefix makes it reachable by "${...}" only; an empty callback answers absent.
  static PXRef<PXRuleCheckerFunction> functionWithFunctionID(PXString functionID,
                                                             PXString functionKeyPathPrefix,
                                                             FunctionBlock functionBlock);

  PXRuleCheckerFunction() = default;
  // "-initWithFunctionID:functionKeyPathPrefix:functionBlock:": the callback is copied.
  PXRuleCheckerFunction(PXString functionID, PXString functionKeyPathPrefix, FunctionBlock functionBlock);

  // The result for `argument` (absent, string or dictionary, see above). The
  // base class answers what the callback gives for (this, argument,
  // returnString), or absent without a callback. Subclasses override it whole.
  // Never raises: a provider answers absent when it cannot answer.
  virtual PXValue resultFor(const PXValue& argument, bool returnString);

  // The identifier matched exactly (case-sensitive) against "${name...}".
  PXString functionID() const { return getAtomic(lock_, functionID_); }
  void setFunctionID(PXString functionID) {
    setObservable(lock_, functionID_, std::move(functionID), "functionID");
  }
  // The first component of the dotted key paths that reach this provider; absent when none do.
  PXString functionKeyPathPrefix() const { return getAtomic(lock_, functionKeyPathPrefix_); }
  void setFunctionKeyPathPrefix(PXString prefix) {
    setObservable(lock_, functionKeyPathPrefix_, std::move(prefix), "functionKeyPathPrefix");
  }
  // The callback of the block form (a copy); empty when none.
  FunctionBlock functionBlock() const { return getAtomic(lock_, functionBlock_); }
  void setFunctionBlock(FunctionBlock block) {
    setObservable(lock_, functionBlock_, std::move(block), "functionBlock");
  }

  // "<PXRuleCheckerFunction: 0x...; version, prefix version>"
  PXString description() const override;

 private:
  mutable std::mutex lock_;
  PXString functionID_;
  PXString functionKeyPathPrefix_;
  FunctionBlock functionBlock_;
};
