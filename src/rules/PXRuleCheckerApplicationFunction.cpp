// The rule provider of installed applications and the host application.
#include <pxkit/platform/PXBundle.h>
#include <pxkit/rules/PXRuleCheckerApplicationFunction.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "rules/internal/ApplicationLookup.h"

namespace {

constexpr std::string_view kApplicationNamePrefix = "AppName.";

// The path of the application an application key names; absent when it is
// not installed or its program cannot be found.
PXValue applicationPath(std::string_view key) {
  const std::vector<std::string> dataDirs = pxkit::rules::applicationDataDirs();
  std::optional<pxkit::rules::InstalledApplication> app =
      key.starts_with(kApplicationNamePrefix)
          ? pxkit::rules::findApplicationNamed(key.substr(kApplicationNamePrefix.size()), dataDirs)
          : pxkit::rules::findApplicationWithIdentifier(key, dataDirs);
  if (!app || app->path.empty()) return {};
  return PXValue(app->path);
}

}  // namespace

PX_DEFINE_CLASS(PXRuleCheckerApplicationFunction, PXRuleCheckerFunction,
                [](PXClassBuilder<PXRuleCheckerApplicationFunction>&) {})

PXRef<PXRuleCheckerApplicationFunction> PXRuleCheckerApplicationFunction::function() {
  return PXMake<PXRuleCheckerApplicationFunction>();
}

PXRuleCheckerApplicationFunction::PXRuleCheckerApplicationFunction() {
  setFunctionID("application");
  setFunctionKeyPathPrefix("application");
}

PXValue PXRuleCheckerApplicationFunction::resultFor(const PXValue& argument, bool /*returnString*/) {
  if (!argument.isString()) return {};
  const std::string_view text = argument.stringValue();
  if (text == "hostApplicationBundleID") return PXBundle::mainBundle()->bundleIdentifier();
  const size_t dot = text.find('.');
  if (dot == std::string_view::npos) return {};
  const std::string_view verb = text.substr(0, dot);
  const std::string_view key = text.substr(dot + 1);
  const PXValue path = key.empty() ? PXValue() : applicationPath(key);
  if (verb == "installed") return PXValue(static_cast<bool>(path));
  if (verb == "path") return path;
  if (verb == "hostApplicationPath") return PXBundle::mainBundle()->bundlePath();
  return {};
}
