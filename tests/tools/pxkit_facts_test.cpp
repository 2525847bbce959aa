// `pxkit facts --json`, run as a user runs it: one JSON document with the
// key paths, the common-metrics catalogue in its order and the registry
// classes with the services each finds on this machine.
#include <gtest/gtest.h>
#include <pxkit/net/PXJSONSerialization.h>
#include <pxkit/objects/PXData.h>
#include <pxkit/system/PXIOService.h>

#include <string>
#include <vector>

#include "support/PXTempHome.h"
#include "support/PXTestPaths.h"
#include "tools/ToolRun.h"

namespace {

PXRef<PXDictionary> document(const ToolRun& run) {
  PXRef<PXData> bytes = PXData::dataWithBytes(run.output.data(), run.output.size());
  return PXJSONSerialization::JSONObjectWithData(bytes, 0).dictionaryValue();
}

}  // namespace

TEST(PxkitFacts, JsonHoldsTheCatalogueInOrderAndTheRegistryClasses) {
  PXTempHome home;  // the tool's own defaults: never launched, so first launch is listed
  const ToolRun run =
      runTool({"facts", "--json", "--root", PXTestSourceDir() + "/tests/rules/fixtures/sysctl-smt"});
  ASSERT_EQ(run.status, 0) << run.output;
  PXRef<PXDictionary> doc = document(run);
  ASSERT_TRUE(doc) << run.output;
  EXPECT_EQ(
      doc->objectForKey("facts").dictionaryValue()->objectForKey("sysctl.integer.hw.logicalcpu").intValue(),
      4);
  EXPECT_TRUE(doc->objectForKey("facts").dictionaryValue()->objectForKey("version.os").isNull());

  // Every entry in catalogue order; the fixture's CPU, and the fixed tail.
  const std::vector<std::string> order = {
      "common.appversion",  "common.osversion",    "common.hwvendor",        "common.hwmodel",
      "common.cputype",     "common.cpucores",     "common.memoryphysical",  "common.displaycount",
      "common.displaytype", "common.graphicscard", "common.drivetechnology", "common.language",
      "common.timezone",    "common.launches",     "common.firstlaunch",     "common.runtime",
      "common.powersource", "common.network"};
  size_t at = 0;
  std::vector<std::string> tail;
  for (const PXValue& item : *doc->objectForKey("commonMetrics").arrayValue()) {
    PXRef<PXDictionary> metric = item.dictionaryValue();
    const std::string identifier(metric->objectForKey("identifier").stringValue());
    while (at < order.size() && order[at] != identifier) ++at;
    ASSERT_LT(at, order.size()) << identifier << " out of order";
    if (identifier == "common.cpucores") {
      EXPECT_EQ(metric->objectForKey("primary").stringValue(), "2");
      EXPECT_EQ(metric->objectForKey("secondary").stringValue(), "4");
    }
    if (std::string(metric->objectForKey("kind").stringValue()) != "state") tail.push_back(identifier);
  }
  EXPECT_EQ(tail, (std::vector<std::string>{"common.launches", "common.firstlaunch", "common.runtime",
                                            "common.powersource", "common.network"}));

  // The classes the kit maps, each with what this process finds too.
  PXRef<PXDictionary> classes = doc->objectForKey("registryClasses").dictionaryValue();
  ASSERT_TRUE(classes);
  EXPECT_EQ(classes->count(), PXIOService::registryClassNames().size());
  for (const std::string& name : PXIOService::registryClassNames()) {
    EXPECT_EQ(classes->objectForKey(name).unsignedLongLongValue(),
              PXIOService::servicesForMatchingClass(name.c_str())->count())
        << name;
  }

  // Named key paths: only they.
  PXRef<PXDictionary> named = document(runTool({"facts", "--json", "version.kernel"}));
  ASSERT_TRUE(named);
  EXPECT_EQ(named->count(), 1u);
}
