// The rule provider of versions.
#include <pxkit/objects/PXDictionary.h>
#include <pxkit/platform/PXBundle.h>
#include <pxkit/platform/PXStringComparison.h>
#include <pxkit/rules/PXRuleCheckerVersionFunction.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "rules/internal/ApplicationLookup.h"
#include "rules/internal/SystemFacts.h"

namespace {

constexpr std::string_view kApplicationNamePrefix = "AppName.";

PXString presentOrAbsent(std::string text) {
  return text.empty() ? PXString() : PXString(std::move(text));
}

PXString infoString(const char* key) {
  PXValue value = PXBundle::mainBundle()->objectForInfoDictionaryKey(key);
  return value.isString() ? value.stringObject() : PXString();
}

// The version of the application an application key names: a desktop-file
// id, or "AppName." and an application's name.
PXValue applicationVersion(std::string_view key) {
  const std::vector<std::string> dataDirs = pxkit::rules::applicationDataDirs();
  std::optional<pxkit::rules::InstalledApplication> app =
      key.starts_with(kApplicationNamePrefix)
          ? pxkit::rules::findApplicationNamed(key.substr(kApplicationNamePrefix.size()), dataDirs)
          : pxkit::rules::findApplicationWithIdentifier(key, dataDirs);
  if (!app || app->version.empty()) return {};
  return PXValue(app->version);
}

// The answer against the operand of a comparison option; a bare option (no
// operand) compares the same, as a comparison with nothing does.
PXComparisonResult compareWithOperand(const PXString& value, const PXValue& operand) {
  if (!operand || operand.isNull()) return PXOrderedSame;
  const PXString other = operand.isString() ? operand.stringObject() : operand.description();
  return PXCompareVersions(value.view(), other.view());
}

}  // namespace

PX_DEFINE_CLASS(PXRuleCheckerVersionFunction, PXRuleCheckerFunction,
                [](PXClassBuilder<PXRuleCheckerVersionFunction>&) {})

PXRef<PXRuleCheckerVersionFunction> PXRuleCheckerVersionFunction::function() {
  return PXMake<PXRuleCheckerVersionFunction>();
}

PXRuleCheckerVersionFunction::PXRuleCheckerVersionFunction(std::string systemRoot)
    : systemRoot_(std::move(systemRoot)) {
  kernelRelease_ = presentOrAbsent(pxkit::rules::kernelRelease(systemRoot_));
  osRelease_ = presentOrAbsent(pxkit::rules::osReleaseVersion(systemRoot_));
  hostApplicationVersion_ = infoString(kPXBundleVersionKey);
  hostApplicationVersionShort_ = infoString(kPXBundleShortVersionStringKey);
  setFunctionID("version");
  setFunctionKeyPathPrefix("version");
}

PXValue PXRuleCheckerVersionFunction::resultFor(const PXValue& argument, bool returnString) {
  PXRef<PXDictionary> options = argument.dictionaryValue();
  const PXValue subjectValue = options ? options->objectForKey("of") : argument;
  const std::string_view subject = subjectValue.stringValue();  // "" for anything but a string

  PXValue result;
  if (subjectValue.isString()) {
    if (subject == "os") {
      result = osRelease_;
    } else if (subject == "kernel") {
      result = kernelRelease_;
    }
  }

  // The application lookup: "application" with options names it by "bundleID";
  // without options any other string is tried as an application key (the
  // subjects below then override the result).
  PXValue applicationKey;
  if (subject == "application" && subjectValue.isString() && options) {
    applicationKey = options->objectForKey("bundleID");
  } else if (!options && !result && subjectValue.isString()) {
    applicationKey = subjectValue;
  }
  if (applicationKey.isString()) {
    // The short and the full version are the same release on this system;
    // "useShortVersion" is accepted for rules written for both.
    result = applicationVersion(applicationKey.stringValue());
  }

  if (subjectValue.isString()) {
    if (subject == "hostApplication") {
      result = hostApplicationVersion_;
    } else if (subject == "hostApplicationShort") {
      result = hostApplicationVersionShort_;
    }
  }

  if (subjectValue.isString() && subject.starts_with("computer")) {
    pxkit::rules::ComputerModel computer = pxkit::rules::computerModel(systemRoot_);
    // A machine that does not describe itself answers nothing, comparisons or not.
    if (!computer.described) return {};
    if (subject == "computerIdentifier") {
      result = computer.model ? PXValue(*computer.model) : PXValue();
    } else if (subject == "computerModel" || subject == "computerVersion" ||
               subject == "computerVersionMajor" || subject == "computerVersionMinor") {
      std::optional<pxkit::rules::ModelParts> parts;
      if (computer.model) parts = pxkit::rules::splitModelIdentifier(*computer.model);
      if (subject == "computerModel") {
        result = parts ? PXValue(parts->name) : PXValue();
      } else if (subject == "computerVersion") {
        result = parts ? PXValue(parts->version) : PXValue();
      } else if (!parts) {
        result = {};
      } else if (const size_t comma = parts->version.find(','); comma != std::string::npos) {
        result = PXValue(subject == "computerVersionMajor" ? parts->version.substr(0, comma)
                                                           : parts->version.substr(comma + 1));
      }
    }
  }

  if (options && result) {
    const PXString value = result.isString() ? result.stringObject() : result.description();
    auto compared = [&](const char* option) -> std::optional<PXComparisonResult> {
      const PXValue* operand = options->findStringKey(option);
      if (!operand) return std::nullopt;
      return compareWithOperand(value, *operand);
    };
    // Kept on purpose: a comparison that does not hold leaves the answer as it
    // is (not false), so rules test the result against YES.
    if (compared("greaterThan") == PXOrderedDescending) result = true;
    if (compared("equalTo") == PXOrderedSame) result = true;
    if (compared("lessThan") == PXOrderedAscending) result = true;
  }

  if (returnString) return result.description();
  return result;
}
