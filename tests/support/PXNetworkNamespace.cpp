#include "support/PXNetworkNamespace.h"

#include <glib.h>
#include <net/if.h>

#include <cstdlib>
#include <vector>

#include "support/PXSubprocess.h"

std::string PXNetworkNamespaceUnavailableReason() {
  const char* inNamespace = getenv("PXKIT_TEST_NETNS");
  if (!inNamespace || std::string(inNamespace) != "1") {
    const char* reason = getenv("PXKIT_TEST_NETNS_UNAVAILABLE");
    return reason ? std::string("no network namespace: ") + reason
                  : "not started in a network namespace of its own (run it through tests/net/run-in-netns)";
  }
  // Belt and braces: a fresh namespace has the loopback interface and nothing else.
  std::string others;
  if (struct if_nameindex* list = if_nameindex()) {
    for (struct if_nameindex* i = list; i->if_index != 0; ++i) {
      if (std::string(i->if_name) != "lo") others += std::string(" ") + i->if_name;
    }
    if_freenameindex(list);
  }
  if (!others.empty())
    return "the namespace has interfaces besides lo (" + others + "); its routes stay untouched";
  std::string error;
  if (!PXRunIp({"link", "set", "lo", "up"}, &error)) return "cannot bring lo up: " + error;
  return "";
}

bool PXRunIp(std::initializer_list<const char*> args, std::string* error) {
  std::vector<const char*> argv = {nullptr};
  for (const char* candidate : {"/usr/sbin/ip", "/sbin/ip", "/usr/bin/ip", "/bin/ip"}) {
    if (g_file_test(candidate, G_FILE_TEST_IS_EXECUTABLE)) {
      argv[0] = candidate;
      break;
    }
  }
  if (!argv[0]) {
    if (error) *error = "no ip program (package iproute2)";
    return false;
  }
  argv.insert(argv.end(), args.begin(), args.end());
  PXSubprocess::Options options;
  options.mergeStandardError = true;
  const PXSubprocess::Result result = PXSubprocess::run({argv.begin(), argv.end()}, options);
  if (result.exitStatus != 0 && error) *error = result.output.empty() ? "ip failed" : result.output;
  return result.exitStatus == 0;
}
