// The rule provider of device-registry services.
#include <pxkit/rules/PXRuleCheckerIOKitFunction.h>
#include <pxkit/system/PXServiceQuery.h>

#include <string_view>

namespace {

// The key prefixes and where their entries go.
struct SortingRule {
  std::string_view prefix;
  bool meeting;  // false: the matching dictionary
  bool integer;  // the value's 64-bit integer value instead of the value
};
constexpr SortingRule kSortingRules[] = {
    {"matchStr", false, false},
    {"matchInt", false, true},
    {"meetStr", true, false},
    {"meetInt", true, true},
};

// Whether `service`'s properties hold every entry of `meeting`. Every key is
// looked at, even after a miss.
bool serviceMeets(PXIOService& service, const PXDictionary& meeting) {
  PXRef<PXDictionary> properties = service.properties();
  bool meets = true;
  for (const auto& [key, wanted] : meeting) {
    const PXValue* value = properties ? properties->find(key) : nullptr;
    if (!value || !value->isEqual(wanted)) meets = false;
  }
  return meets;
}

}  // namespace

PX_DEFINE_CLASS(PXRuleCheckerIOKitFunction, PXRuleCheckerFunction,
                [](PXClassBuilder<PXRuleCheckerIOKitFunction>&) {})

PXRef<PXRuleCheckerIOKitFunction> PXRuleCheckerIOKitFunction::function() {
  return PXMake<PXRuleCheckerIOKitFunction>();
}

PXRuleCheckerIOKitFunction::PXRuleCheckerIOKitFunction() {
  setFunctionID("iokit");
}

PXRef<PXIOService> PXRuleCheckerIOKitFunction::firstServiceMatching(const PXRef<PXDictionary>& matching,
                                                                    const PXRef<PXDictionary>& meeting) {
  if (!matching) return {};
  PXRef<PXArray> services = PXServiceQuery::servicesMatchingDictionary(*matching);
  if (!services) return {};
  for (const PXValue& item : *services) {
    PXObject* object = item.objectPointer();
    if (!object || !object->isKindOfClass(PXIOService::classObject())) continue;
    auto* service = static_cast<PXIOService*>(object);
    if (!meeting || meeting->count() == 0 || serviceMeets(*service, *meeting))
      return PXRef<PXIOService>(service);
  }
  return {};
}

PXValue PXRuleCheckerIOKitFunction::resultFor(const PXValue& argument, bool /*returnString*/) {
  PXRef<PXDictionary> arguments = argument.dictionaryValue();
  const PXValue* action = arguments ? arguments->findStringKey("do") : nullptr;
  if (!action) return {};

  PXRef<PXMutableDictionary> matching = PXMutableDictionary::dictionary();
  PXRef<PXMutableDictionary> meeting = PXMutableDictionary::dictionary();
  for (const auto& [key, value] : *arguments) {
    if (!key.isString()) continue;
    const std::string_view name = key.stringValue();
    for (const SortingRule& rule : kSortingRules) {
      if (!name.starts_with(rule.prefix)) continue;
      PXMutableDictionary& target = rule.meeting ? *meeting : *matching;
      target.setObject(rule.integer ? PXValue(static_cast<long long>(value.longLongValue())) : value,
                       PXValue(name.substr(rule.prefix.size())));
      break;
    }
  }

  const std::string_view what = action->isString() ? action->stringValue() : std::string_view();
  if (what == "exists") {
    return PXValue(static_cast<bool>(firstServiceMatching(matching, meeting)));
  }
  if (what == "propertyValue") {
    PXRef<PXIOService> service = firstServiceMatching(matching, meeting);
    const PXValue* property = arguments->findStringKey("propertyName");
    if (!service || !property || !property->isString()) return {};
    return service->valueForProperty(property->stringValue());
  }
  return {};
}
