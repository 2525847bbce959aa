// `pxkit online` as a user runs it, in a network namespace of the test's own
// (tests/net/run-in-netns) whose default route the test adds and removes on
// lo; the tool inherits the namespace.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/PXNetworkNamespace.h"
#include "support/PXSubprocess.h"

namespace {

// The tool with its standard output on a pipe; killed when still running at the end.
struct Tool {
  explicit Tool(std::vector<std::string> args)
      : process([&] {
          args.insert(args.begin(), PXKIT_CLI);
          return args;
        }()) {}
  // The next line printed; "" at the end of the output.
  std::string nextLine() { return process.readLine().value_or(""); }
  int exitStatus() { return PXSubprocess::exitStatusOf(process.wait()); }
  PXSubprocess process;
};

constexpr const char* kNo = "network available: no (no route)";
constexpr const char* kYes = "network available: yes (reachable)";

TEST(PXKitToolOnline, AnswersOnceWithItsExitStatus) {
  PX_SKIP_WITHOUT_NETWORK_NAMESPACE();
  for (bool route : {false, true}) {
    ASSERT_TRUE(!route || PXRunIp({"route", "add", "default", "dev", "lo"}));
    Tool tool({"online"});
    EXPECT_EQ(tool.nextLine(), route ? kYes : kNo);
    EXPECT_EQ(tool.nextLine(), "") << "one line only";
    EXPECT_EQ(tool.exitStatus(), route ? 0 : 1);
  }
  Tool refused({"online", "--forever"});
  EXPECT_EQ(refused.nextLine(), "") << "the complaint goes to standard error";
  EXPECT_EQ(refused.exitStatus(), 2);
}

TEST(PXKitToolOnline, WatchPrintsEachChange) {
  PX_SKIP_WITHOUT_NETWORK_NAMESPACE();
  Tool tool({"online", "--watch"});
  ASSERT_EQ(tool.nextLine(), kNo);
  // The route comes and goes twice. In between, an address added on lo is a
  // routing change announced with the same verdict: the tool prints nothing.
  for (const char* address : {"10.9.9.9/32", "10.9.9.10/32"}) {
    ASSERT_TRUE(PXRunIp({"route", "add", "default", "dev", "lo"}));
    EXPECT_EQ(tool.nextLine(), kYes);
    ASSERT_TRUE(PXRunIp({"address", "add", address, "dev", "lo"}));
    ASSERT_TRUE(PXRunIp({"route", "del", "default", "dev", "lo"}));
    EXPECT_EQ(tool.nextLine(), kNo);
  }
}

}  // namespace
