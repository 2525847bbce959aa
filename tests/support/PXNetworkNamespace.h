// Routes a test may change: a network namespace of the test program's own.
//
//   TEST(Thing, FollowsTheDefaultRoute) {
//     PX_SKIP_WITHOUT_NETWORK_NAMESPACE();
//     ASSERT_TRUE(PXRunIp({"route", "add", "default", "dev", "lo"}));
//   }
//
// The program runs under tests/net/run-in-netns (the WRAPPER of its
// pxkit_add_test), which starts it with `unshare -rn` and PXKIT_TEST_NETNS=1,
// or, where no namespace can be made, without one and with the reason in
// PXKIT_TEST_NETNS_UNAVAILABLE. The loopback interface is brought up once.
#pragma once

#include <gtest/gtest.h>

#include <initializer_list>
#include <string>

// Empty when the process runs in a namespace of its own that holds only the
// loopback interface (brought up by this call); otherwise why it may not
// change routes.
std::string PXNetworkNamespaceUnavailableReason();

#define PX_SKIP_WITHOUT_NETWORK_NAMESPACE()                                            \
  do {                                                                                 \
    if (std::string reason = PXNetworkNamespaceUnavailableReason(); !reason.empty()) { \
      GTEST_SKIP() << reason;                                                          \
    }                                                                                  \
  } while (0)

// Runs iproute2's `ip` with `args` and waits for it: every netlink listener
// has been told of the change when it returns. False, with ip's complaint in
// *error, when it fails.
bool PXRunIp(std::initializer_list<const char*> args, std::string* error = nullptr);
