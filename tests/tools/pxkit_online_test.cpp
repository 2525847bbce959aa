// `pxkit online` as a user runs it, in a network namespace of the test's own
// (tests/net/run-in-netns) whose default route the test adds and removes on
// lo; the tool inherits the namespace.
#include <gtest/gtest.h>

#include <string>

#include "support/PXNetworkNamespace.h"
#include "support/PXSubprocess.h"

namespace {

constexpr const char* kNo = "network available: no (no route)";
constexpr const char* kYes = "network available: yes (reachable)";

TEST(PXKitToolOnline, AnswersOnceWithItsExitStatus) {
  PX_SKIP_WITHOUT_NETWORK_NAMESPACE();
  for (bool route : {false, true}) {
    ASSERT_TRUE(!route || PXRunIp({"route", "add", "default", "dev", "lo"}));
    PXSubprocess::Result run = PXSubprocess::run({PXKIT_CLI, "online"});
    EXPECT_EQ(run.output, std::string(route ? kYes : kNo) + "\n") << "one line only";
    EXPECT_EQ(run.exitStatus, route ? 0 : 1);
  }
  PXSubprocess::Result refused = PXSubprocess::run({PXKIT_CLI, "online", "--forever"});
  EXPECT_EQ(refused.output, "") << "the complaint goes to standard error";
  EXPECT_EQ(refused.exitStatus, 2);
}

TEST(PXKitToolOnline, WatchPrintsEachChange) {
  PX_SKIP_WITHOUT_NETWORK_NAMESPACE();
  PXSubprocess tool({PXKIT_CLI, "online", "--watch"});
  ASSERT_EQ(tool.readLine(), kNo);
  // The route comes and goes twice. In between, an address added on lo is a
  // routing change announced with the same verdict: the tool prints nothing.
  for (const char* address : {"10.9.9.9/32", "10.9.9.10/32"}) {
    ASSERT_TRUE(PXRunIp({"route", "add", "default", "dev", "lo"}));
    EXPECT_EQ(tool.readLine(), kYes);
    ASSERT_TRUE(PXRunIp({"address", "add", address, "dev", "lo"}));
    ASSERT_TRUE(PXRunIp({"route", "del", "default", "dev", "lo"}));
    EXPECT_EQ(tool.readLine(), kNo);
  }
}

}  // namespace
