#include "State.h"

#include <pxkit/metrics/PXMetricsTracker.h>
#include <pxkit/objects/PXKeyedArchiver.h>
#include <pxkit/platform/PXBundle.h>
#include <pxkit/platform/PXPreferences.h>

#include <cmath>
#include <cstdio>
#include <ctime>
#include <optional>
#include <string>

namespace PXKitState {
namespace {

constexpr const char* kDefaultApplication = "org.pxkit.DemoEditor";  // the demo's sample application

// "2026-11-24 00:00:01 UTC" for seconds since 1970.
std::string utcText(double secondsSince1970) {
  if (!std::isfinite(secondsSince1970)) return "(invalid date)";
  std::time_t t = static_cast<std::time_t>(std::floor(secondsSince1970));
  std::tm tm{};
  char text[64];
  if (!gmtime_r(&t, &tm) || !std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S UTC", &tm))
    return "(invalid date)";
  return text;
}

std::string metricName(const PXMetric& metric) {
  std::string name(metric.identifier().view());
  PXString primary = metric.primary(), secondary = metric.secondary();
  if (!primary.view().empty() || !secondary.view().empty()) {
    name += " [" + std::string(primary.view());
    if (!secondary.view().empty()) name += ", " + std::string(secondary.view());
    name += "]";
  }
  return name;
}

int noState(const std::string& application, const char* why) {
  std::fprintf(stderr, "pxkit: state: no metrics stored for %s (%s)\n", application.c_str(), why);
  return 1;
}

}  // namespace

int run(const std::vector<std::string_view>& args) {
  std::string application = kDefaultApplication;
  for (size_t i = 0; i < args.size(); ++i) {
    if (args[i] == "--app" && i + 1 < args.size() && !args[i + 1].empty()) {
      application = std::string(args[++i]);
    } else {
      std::fprintf(stderr, "pxkit: state: unknown option '%s'\nTry 'pxkit --help'.\n",
                   std::string(args[i]).c_str());
      return 2;
    }
  }
  // Read before anything asks the tracker for its system ID, which would make
  // and store one when none exists.
  PXString systemID = PXPreferences::copyValue("MetricsRandomSystemID", application,
                                               kPXPreferencesCurrentUser, kPXPreferencesCurrentHost)
                          .stringValue();
  if (systemID.view().empty()) return noState(application, "no system ID");
  PXRef<PXDictionary> all = PXPreferences::copyAppValue("Metrics", application).dictionaryValue();
  PXRef<PXData> blob = all ? all->objectForKey(systemID).dataValue() : PXRef<PXData>();
  if (!blob) return noState(application, "no saved state for this system");
  // The application's version as its last papercut preview recorded it, so
  // that the papercuts made below carry what the application's would.
  PXString version;
  if (PXRef<PXDictionary> root = PXKeyedUnarchiver::unarchiveObjectWithData(blob).dictionaryValue()) {
    if (PXRef<PXDictionary> preview = root->objectForKey("SavedStatePaperCut").dictionaryValue()) {
      version = preview->objectForKey("applicationVersion").stringValue();
    }
  }
  PXBundle::setMainBundleIdentity(application, version);

  // A tracker of the tool's own holds the restored state; it is never saved.
  auto tracker = PXMake<PXMetricsTracker>();
  if (!tracker->restoreFromData(blob)) return noState(application, "the saved state does not decode");

  std::printf("application: %s\nsystem ID: %s\n", application.c_str(), systemID.c_str());
  PXRef<PXArray> metrics = tracker->metrics();
  std::printf("metrics (%zu):\n", metrics->count());
  for (const PXValue& value : *metrics) {
    const auto* metric = static_cast<const PXMetric*>(value.objectPointer());
    std::printf("  %s = %d\n", metricName(*metric).c_str(), metric->value());
  }
  PXRef<PXArray> cuts = tracker->paperCuts();
  std::printf("papercuts waiting (%zu):\n", cuts ? cuts->count() : 0);
  if (cuts) {
    for (const PXValue& value : *cuts) {
      PXRef<PXDictionary> cut = value.dictionaryValue();
      if (!cut) continue;
      PXRef<PXArray> sets = cut->objectForKey("metrics").arrayValue();
      std::printf("  %s  %s  %zu metrics\n",
                  std::string(cut->objectForKey("packageID").stringValue()).c_str(),
                  utcText(cut->objectForKey("timestamp").doubleValue()).c_str(), sets ? sets->count() : 0);
    }
  }
  std::optional<PXDate> last = tracker->lastAutoSubmissionDate();
  std::printf(
      "last submission: %s\n",
      last ? utcText(last->timeIntervalSinceReferenceDate() + kPXTimeIntervalSince1970).c_str() : "never");
  PXRef<PXData> body = tracker->dataForSubmissionSync();
  if (!body) {
    std::printf("next submission body: none\n");
  } else {
    std::printf("next submission body (%zu bytes):\n", body->length());
    std::fwrite(body->bytes().data(), 1, body->length(), stdout);
    std::printf("\n");
  }
  return 0;
}

}  // namespace PXKitState
