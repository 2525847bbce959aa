// `pxkit facts --json`, run as a user runs it: one JSON document whose
// catalogue is the one this process computes and whose registry classes
// find as many services as this process does.
#include <gtest/gtest.h>
#include <pxkit/metrics/PXMetricsTrackerCommonMetrics.h>
#include <pxkit/net/PXJSONSerialization.h>
#include <pxkit/objects/PXData.h>
#include <pxkit/system/PXIOService.h>

#include <string>

#include "support/PXTempHome.h"
#include "tools/ToolRun.h"

TEST(PXKitToolFacts, JsonHoldsTheCatalogueAndTheRegistryClasses) {
  PXTempHome home;  // the tool's defaults and this process's: never launched
  const ToolRun run = runTool({"facts", "--json"});
  ASSERT_EQ(run.status, 0) << run.output;
  PXRef<PXDictionary> doc =
      PXJSONSerialization::JSONObjectWithData(PXData::dataWithBytes(run.output.data(), run.output.size()), 0)
          .dictionaryValue();
  ASSERT_TRUE(doc) << run.output;
  EXPECT_EQ(doc->objectForKey("facts").dictionaryValue()->objectForKey("sysctl.integer.hw.logicalcpu"),
            PXValue(sysconf(_SC_NPROCESSORS_ONLN)));

  std::string printed, expected;
  for (const PXValue& item : *doc->objectForKey("commonMetrics").arrayValue()) {
    for (const char* key : {"identifier", "primary", "secondary", "kind"})
      printed += item.dictionaryValue()->objectForKey(key).description().str() + (key[0] == 'k' ? "\n" : " ");
  }
  for (const PXCommonMetric& m : PXMetricsTrackerCommonMetrics::commonMetricsCatalogue()) {
    for (const PXString& text : {m.identifier, m.primary, m.secondary})
      expected += (text ? text.str() : "<null>") + " ";
    expected += std::string(m.kind) + "\n";
  }
  EXPECT_EQ(printed, expected);

  PXRef<PXDictionary> classes = doc->objectForKey("registryClasses").dictionaryValue();
  ASSERT_TRUE(classes);
  EXPECT_EQ(classes->count(), PXIOService::registryClassNames().size());
  for (const std::string& name : PXIOService::registryClassNames()) {
    EXPECT_EQ(classes->objectForKey(name).unsignedLongLongValue(),
              PXIOService::servicesForMatchingClass(name.c_str())->count())
        << name;
  }
}
