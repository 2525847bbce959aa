// The base of the rule checker's function providers.
#include <pxkit/objects/PXFormat.h>
#include <pxkit/rules/PXRuleCheckerFunction.h>

PX_DEFINE_CLASS(PXRuleCheckerFunction, PXObject, [](PXClassBuilder<PXRuleCheckerFunction>& c) {
  c.computed("functionID", &PXRuleCheckerFunction::functionID, &PXRuleCheckerFunction::setFunctionID,
             PXPropertyOwnership::Retain);
  c.computed("functionKeyPathPrefix", &PXRuleCheckerFunction::functionKeyPathPrefix,
             &PXRuleCheckerFunction::setFunctionKeyPathPrefix, PXPropertyOwnership::Retain);
})

PXRef<PXRuleCheckerFunction> PXRuleCheckerFunction::function() {
  return PXMake<PXRuleCheckerFunction>();
}

PXRef<PXRuleCheckerFunction> PXRuleCheckerFunction::functionWithFunctionID(PXString functionID,
                                                                           PXString functionKeyPathPrefix,
                                                                           FunctionBlock functionBlock) {
  return PXMake<PXRuleCheckerFunction>(std::move(functionID), std::move(functionKeyPathPrefix),
                                       std::move(functionBlock));
}

PXRuleCheckerFunction::PXRuleCheckerFunction(PXString functionID, PXString functionKeyPathPrefix,
                                             FunctionBlock functionBlock) {
  setFunctionID(std::move(functionID));
  setFunctionKeyPathPrefix(std::move(functionKeyPathPrefix));
  setFunctionBlock(std::move(functionBlock));
}

PXValue PXRuleCheckerFunction::resultFor(const PXValue& argument, bool returnString) {
  FunctionBlock block = functionBlock();
  if (!block) return {};
  return block(this, argument, returnString);
}

PXString PXRuleCheckerFunction::description() const {
  PXString prefix = functionKeyPathPrefix();
  if (prefix)
    return PXFormat("<%s: %p; %@, prefix %@>", pxClass().name().c_str(), this, functionID(), prefix);
  return PXFormat("<%s: %p; %@>", pxClass().name().c_str(), this, functionID());
}
