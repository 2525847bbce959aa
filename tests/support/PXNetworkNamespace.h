// Routes a test may change: the program runs under tests/net/run-in-netns (its WRAPPER), which
// starts it in a network namespace of its own (`unshare -rn`, PXKIT_TEST_NETNS=1) or, where none
// can be made, without one and with the reason in PXKIT_TEST_NETNS_UNAVAILABLE.
//
//   PX_SKIP_WITHOUT_NETWORK_NAMESPACE();
//   ASSERT_TRUE(PXRunIp({"route", "add", "default", "dev", "lo"}));
#pragma once

#include <glib.h>
#include <gtest/gtest.h>
#include <net/if.h>

#include <cstdlib>
#include <initializer_list>
#include <string>
#include <vector>

#include "support/PXSubprocess.h"

// Runs iproute2's `ip` and waits for it (every netlink listener has been told when it returns);
// false, with ip's complaint in *error, when it fails.
inline bool PXRunIp(std::initializer_list<const char*> args, std::string* error = nullptr) {
  std::vector<std::string> argv = {"/usr/sbin/ip", "/sbin/ip", "/usr/bin/ip", "/bin/ip"};
  std::erase_if(argv,
                [](const std::string& ip) { return !g_file_test(ip.c_str(), G_FILE_TEST_IS_EXECUTABLE); });
  PXSubprocess::Result result{.exitStatus = -1, .output = "no ip program (package iproute2)"};
  if (!argv.empty()) {
    argv.resize(1);
    argv.insert(argv.end(), args.begin(), args.end());
    result = PXSubprocess::run(argv, {.environment = {}, .outputDescriptor = 1, .mergeStandardError = true});
  }
  if (result.exitStatus != 0 && error) *error = result.output.empty() ? "ip failed" : result.output;
  return result.exitStatus == 0;
}

// Empty when the process has a namespace of its own holding only the loopback interface (which
// this brings up); otherwise why it may not change routes.
inline std::string PXNetworkNamespaceUnavailableReason() {
  if (const char* inNamespace = getenv("PXKIT_TEST_NETNS"); !inNamespace || std::string(inNamespace) != "1") {
    const char* reason = getenv("PXKIT_TEST_NETNS_UNAVAILABLE");
    return reason ? std::string("no network namespace: ") + reason
                  : "not started in a network namespace of its own (run it through tests/net/run-in-netns)";
  }
  std::string others;  // belt and braces: a fresh namespace has lo and nothing else
  if (struct if_nameindex* list = if_nameindex()) {
    for (struct if_nameindex* i = list; i->if_index != 0; ++i) {
      if (std::string(i->if_name) != "lo") others += std::string(" ") + i->if_name;
    }
    if_freenameindex(list);
  }
  if (!others.empty())
    return "the namespace has interfaces besides lo (" + others + "); its routes stay untouched";
  std::string error;
  return PXRunIp({"link", "set", "lo", "up"}, &error) ? "" : "cannot bring lo up: " + error;
}

#define PX_SKIP_WITHOUT_NETWORK_NAMESPACE()                                            \
  do {                                                                                 \
    if (std::string reason = PXNetworkNamespaceUnavailableReason(); !reason.empty()) { \
      GTEST_SKIP() << reason;                                                          \
    }                                                                                  \
  } while (0)
