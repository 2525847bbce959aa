// `pxkit check` and `pxkit facts`; see Rules.h.
#include "Rules.h"

#include <pxkit/metrics/PXMetricsTrackerCommonMetrics.h>
#include <pxkit/net/PXJSONSerialization.h>
#include <pxkit/objects/PXData.h>
#include <pxkit/platform/PXLog.h>
#include <pxkit/rules/PXRuleChecker.h>
#include <pxkit/rules/PXRuleCheckerFilesystemFunction.h>
#include <pxkit/rules/PXRuleCheckerSysCtlFunction.h>
#include <pxkit/rules/PXRuleCheckerVersionFunction.h>
#include <pxkit/system/PXIOService.h>

#include <algorithm>
#include <cstdio>
#include <future>
#include <optional>
#include <string>

#include "Console.h"

namespace PXKitRules {

namespace {

// Exit statuses of `check`.
constexpr int kHolds = 0;
constexpr int kDoesNotHold = 1;
constexpr int kRaised = 2;

// The key paths `facts` shows by default.
constexpr const char* kDefaultFacts[] = {
    "version.os",
    "version.kernel",
    "version.computerIdentifier",
    "version.computerModel",
    "version.computerVersion",
    "version.hostApplication",
    "version.hostApplicationShort",
    "sysctl.integer.hw.physicalcpu",
    "sysctl.integer.hw.logicalcpu",
    "sysctl.integer.hw.memsize",
    "sysctl.string.machdep.cpu.brand_string",
};

int usageError(const std::string& message) {
  std::fprintf(stderr, "pxkit: %s\nTry 'pxkit --help'.\n", message.c_str());
  return kRaised;
}

// Log lines go to standard error, in order with what the tool prints.
struct LogToStandardError {
  LogToStandardError() {
    PXLogSetHandler([](PXLogLevel, std::string_view line) {
      Console::flush();
      std::fprintf(stderr, "%.*s\n", static_cast<int>(line.size()), line.data());
    });
  }
  ~LogToStandardError() { PXLogSetHandler(nullptr); }
};

// The shared checker, or one whose system facts are read below `root`.
PXRef<PXRuleChecker> makeChecker(const std::optional<std::string>& root) {
  if (!root) return PXRef<PXRuleChecker>(PXRuleChecker::sharedChecker());
  PXRef<PXRuleChecker> checker = PXRuleChecker::ruleCheckerWithDefaultFunctions(false);
  checker->addFunction(PXMake<PXRuleCheckerVersionFunction>(*root));
  checker->addFunction(PXRuleCheckerFilesystemFunction::function());
  checker->addFunction(PXMake<PXRuleCheckerSysCtlFunction>(*root));
  return checker;
}

// What kind of value a fact or variable is, in a word.
std::string kindOf(const PXValue& value) {
  switch (value.kind()) {
    case PXValue::Kind::Absent:
      return "none";
    case PXValue::Kind::Null:
      return "null";
    case PXValue::Kind::Bool:
      return "boolean";
    case PXValue::Kind::Int:
    case PXValue::Kind::UInt:
    case PXValue::Kind::Double:
      return "number";
    case PXValue::Kind::Date:
      return "date";
    case PXValue::Kind::String:
      return "string";
    case PXValue::Kind::Data:
      return "data";
    case PXValue::Kind::Object:
      return value.className().str();
  }
  return "value";
}

std::string shown(const PXValue& value) {
  return value ? value.description().str() : "(none)";
}

// Takes "--root DIR" out of `args`; false (with a message) when DIR is missing.
bool takeRoot(std::vector<std::string_view>& args, std::optional<std::string>& root, const char* verb) {
  for (size_t i = 0; i < args.size(); ++i) {
    if (args[i] != "--root") continue;
    if (i + 1 == args.size()) {
      usageError(std::string(verb) + ": --root needs a directory");
      return false;
    }
    root = std::string(args[i + 1]);
    args.erase(args.begin() + static_cast<long>(i), args.begin() + static_cast<long>(i) + 2);
    return true;
  }
  return true;
}

}  // namespace

int check(const std::vector<std::string_view>& arguments) {
  std::vector<std::string_view> args = arguments;
  std::optional<std::string> root;
  if (!takeRoot(args, root, "check")) return kRaised;
  bool explain = false;
  std::optional<std::string> rule;
  bool optionsEnded = false;  // after "--" a rule may begin with "-": pxkit check -- '-1 < 0'
  for (std::string_view arg : args) {
    if (arg == "--" && !optionsEnded) {
      optionsEnded = true;
    } else if (arg == "--explain" && !optionsEnded) {
      explain = true;
    } else if (!rule && (optionsEnded || arg.empty() || arg.front() != '-' || arg == "-")) {
      rule = std::string(arg);
    } else if (rule) {
      return usageError("check: one rule at a time (quote it: pxkit check 'version.os >= \"12\"')");
    } else {
      return usageError("check: unknown option '" + std::string(arg) + "'");
    }
  }
  if (!rule) return usageError("check: which rule?");

  LogToStandardError log;
  PXRef<PXRuleChecker> checker = makeChecker(root);
  if (explain) {
    PXRef<PXMutableDictionary> variables;
    const PXString text = checker->preprocessCheckRule(*rule, &variables);
    Console::field("rule", *rule, 11);
    Console::field("evaluated", text.view(), 11);
    if (variables->count() == 0) Console::field("variables", "(none)", 11);
    for (const auto& [name, value] : variables->entries()) {
      // Built by appending: GCC 12 at -O3 warns (-Wrestrict, wrongly) on "$" + std::string&&.
      std::string label = "$";
      label += name.description().view();
      Console::field(label, shown(value) + "  (" + kindOf(value) + ")", 11);
    }
  }
  std::optional<PXException> error;
  const bool holds = checker->runCheck(PXString(*rule), &error);
  Console::flush();
  if (error) {
    std::fprintf(stderr, "pxkit: check: %s\n", error->description().c_str());
    return kRaised;
  }
  std::puts(holds ? "YES" : "NO");
  return holds ? kHolds : kDoesNotHold;
}

namespace {

// A fact as JSON: itself when JSON can carry it, its text otherwise, null when absent.
PXValue jsonValue(const PXValue& value) {
  if (!value) return PXValue::null();
  return PXJSONSerialization::isValidJSONObject(PXArray::arrayWithValues({value}))
             ? value
             : PXValue(value.description());
}

PXValue jsonString(const PXString& text) {
  return text ? PXValue(text) : PXValue::null();
}

}  // namespace

int facts(const std::vector<std::string_view>& arguments) {
  std::vector<std::string_view> args = arguments;
  std::optional<std::string> root;
  if (!takeRoot(args, root, "facts")) return kRaised;
  bool json = false;
  std::vector<std::string> paths;
  for (std::string_view arg : args) {
    if (arg == "--json") {
      json = true;
    } else if (arg.starts_with("--")) {
      return usageError("facts: unknown option '" + std::string(arg) + "'");
    } else {
      paths.emplace_back(arg);
    }
  }
  // Named key paths show only themselves; without any, the whole picture.
  const bool everything = paths.empty();
  if (everything) paths.assign(std::begin(kDefaultFacts), std::end(kDefaultFacts));

  LogToStandardError log;
  // The registry is walked on a thread of its own while the facts are read
  // here (the catalogue asks the network monitor, which wants this thread).
  std::future<std::vector<std::pair<std::string, size_t>>> counting;
  if (everything) {
    counting = std::async(std::launch::async, [] {
      std::vector<std::pair<std::string, size_t>> counts;
      for (std::string& name : PXIOService::registryClassNames()) {
        const size_t count = PXIOService::countServicesForMatchingClass(name.c_str());
        counts.emplace_back(std::move(name), count);
      }
      return counts;
    });
  }
  PXRef<PXRuleChecker> checker = makeChecker(root);
  std::vector<PXCommonMetric> catalogue;
  if (everything) catalogue = PXMetricsTrackerCommonMetrics::commonMetricsCatalogue(checker.get());
  const std::vector<std::pair<std::string, size_t>> classes =
      counting.valid() ? counting.get() : std::vector<std::pair<std::string, size_t>>();

  if (json) {
    auto keyPaths = PXMutableDictionary::dictionary();
    for (const std::string& path : paths)
      keyPaths->setObject(jsonValue(checker->computeFunction(path)), path);
    auto document = PXMutableDictionary::dictionary();
    document->setObject(keyPaths, "facts");
    if (everything) {
      auto metrics = PXMutableArray::array();
      for (const PXCommonMetric& m : catalogue) {
        metrics->addObject(PXDictionary::dictionaryWithEntries({{"identifier", m.identifier},
                                                                {"primary", jsonString(m.primary)},
                                                                {"secondary", jsonString(m.secondary)},
                                                                {"kind", m.kind}}));
      }
      document->setObject(metrics, "commonMetrics");
      auto counts = PXMutableDictionary::dictionary();
      for (const auto& [name, count] : classes)
        counts->setObject(PXValue(static_cast<unsigned long long>(count)), name);
      document->setObject(counts, "registryClasses");
    }
    PXRef<PXData> data = PXJSONSerialization::dataWithJSONObject(document, kPXJSONWritingPrettyPrinted);
    if (!data) return usageError("facts: the facts cannot be written as JSON");
    std::fwrite(data->bytes().data(), 1, data->length(), stdout);
    std::fputc('\n', stdout);
    return 0;
  }

  size_t width = 0;
  for (const std::string& path : paths) width = std::max(width, path.size());
  for (const std::string& path : paths)
    Console::field(path, shown(checker->computeFunction(path)), width + 2);
  if (!everything) return 0;

  Console::heading("Common metrics");
  Console::Table metrics({{"Identifier"}, {"Primary"}, {"Secondary"}, {"Kind"}});
  for (const PXCommonMetric& m : catalogue) {
    metrics.addRow({m.identifier.str(), m.primary ? m.primary.str() : "-",
                    m.secondary ? m.secondary.str() : "-", m.kind});
  }
  metrics.print();
  Console::heading("Registry classes");
  Console::Table registry({{"Class"}, {"Services", Console::Align::Right}});
  for (const auto& [name, count] : classes) registry.addRow({name, std::to_string(count)});
  registry.print();
  return 0;
}

}  // namespace PXKitRules
