// The rule provider of kernel system values.
#include <pxkit/rules/PXRuleCheckerSysCtlFunction.h>

#include <cstdint>
#include <cstring>
#include <optional>
#include <string>

#include "rules/internal/SysCtlSources.h"

namespace {

bool isUtf8(std::string_view text) {
  size_t i = 0;
  while (i < text.size()) {
    const auto lead = static_cast<unsigned char>(text[i]);
    const size_t length = lead < 0x80           ? 1
                          : (lead >> 5) == 0x6  ? 2
                          : (lead >> 4) == 0xe  ? 3
                          : (lead >> 3) == 0x1e ? 4
                                                : 0;
    if (length == 0 || i + length > text.size()) return false;
    for (size_t k = 1; k < length; ++k)
      if ((static_cast<unsigned char>(text[i + k]) & 0xc0) != 0x80) return false;
    i += length;
  }
  return true;
}

}  // namespace

PX_DEFINE_CLASS(PXRuleCheckerSysCtlFunction, PXRuleCheckerFunction,
                [](PXClassBuilder<PXRuleCheckerSysCtlFunction>&) {})

PXRef<PXRuleCheckerSysCtlFunction> PXRuleCheckerSysCtlFunction::function() {
  return PXMake<PXRuleCheckerSysCtlFunction>();
}

PXRuleCheckerSysCtlFunction::PXRuleCheckerSysCtlFunction(std::string systemRoot)
    : systemRoot_(std::move(systemRoot)) {
  setFunctionID("sysctl");
  setFunctionKeyPathPrefix("sysctl");
}

PXString PXRuleCheckerSysCtlFunction::sysCtlStringValueForName(std::string_view name,
                                                               std::string_view systemRoot) {
  std::optional<pxkit::rules::SysCtlValue> value = pxkit::rules::readSysCtlValue(name, systemRoot);
  if (!value) return {};
  std::string bytes;
  if (value->kind == pxkit::rules::SysCtlValue::Kind::Text) {
    bytes = value->text;
  } else {
    // The number's own bytes, as the kernel would hand them out.
    bytes.resize(value->size);
    const uint64_t bits = value->bits;
    std::memcpy(bytes.data(), &bits, value->size);
  }
  bytes.resize(std::strlen(bytes.c_str()));  // a zero-terminated text
  if (!isUtf8(bytes)) return {};
  return PXString(bytes);
}

PXValue PXRuleCheckerSysCtlFunction::sysCtlIntegerValueForName(std::string_view name, bool useUnsignedInt,
                                                               std::string_view systemRoot) {
  std::optional<pxkit::rules::SysCtlValue> value = pxkit::rules::readSysCtlValue(name, systemRoot);
  if (value && value->kind == pxkit::rules::SysCtlValue::Kind::Text)
    value = pxkit::rules::integerFromText(value->text);
  if (!value) return {};
  const uint64_t bits = value->bits;
  switch (value->size) {
    case 1:
      return useUnsignedInt ? PXValue(static_cast<unsigned>(static_cast<uint8_t>(bits)))
                            : PXValue(static_cast<int>(static_cast<int8_t>(bits)));
    case 2:
      return useUnsignedInt ? PXValue(static_cast<unsigned>(static_cast<uint16_t>(bits)))
                            : PXValue(static_cast<int>(static_cast<int16_t>(bits)));
    case 4:
      return useUnsignedInt ? PXValue(static_cast<unsigned>(static_cast<uint32_t>(bits)))
                            : PXValue(static_cast<int>(static_cast<int32_t>(bits)));
    case 8:
      return useUnsignedInt ? PXValue(static_cast<unsigned long long>(bits))
                            : PXValue(static_cast<long long>(static_cast<int64_t>(bits)));
    default:
      return {};
  }
}

PXValue PXRuleCheckerSysCtlFunction::resultFor(const PXValue& argument, bool returnString) {
  if (!argument.isString()) return {};
  const std::string_view text = argument.stringValue();
  const size_t dot = text.find('.');
  if (dot == std::string_view::npos) return {};
  const std::string_view type = text.substr(0, dot);
  if (type == "integer" || type == "unsignedInteger") {
    PXValue number = sysCtlIntegerValueForName(text.substr(dot + 1), type == "unsignedInteger", systemRoot_);
    if (returnString && number) return number.description();
    return number;
  }
  const std::string_view name = type == "string" ? text.substr(dot + 1) : text;
  return sysCtlStringValueForName(name, systemRoot_);
}
