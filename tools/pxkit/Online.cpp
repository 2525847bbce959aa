#include "Online.h"

#include <pxkit/foundation/PXObjectBlockObserver.h>
#include <pxkit/net/PXNetworkAvailabilityMonitor.h>
#include <pxkit/platform/PXRunLoop.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <utility>

namespace PXKitOnline {
namespace {

// The flags in words, in bit order; "no route" when nothing is reachable.
std::string describeFlags(uint32_t flags) {
  static constexpr std::pair<uint32_t, const char*> kWords[] = {
      {kPXNetworkReachabilityFlagsReachable, "reachable"},
      {kPXNetworkReachabilityFlagsConnectionRequired, "connection required"},
      {kPXNetworkReachabilityFlagsConnectionOnTraffic, "connection on traffic"},
      {kPXNetworkReachabilityFlagsInterventionRequired, "intervention required"},
      {kPXNetworkReachabilityFlagsConnectionOnDemand, "connection on demand"},
      {kPXNetworkReachabilityFlagsIsLocalAddress, "local address"},
      {kPXNetworkReachabilityFlagsIsWWAN, "metered"},
  };
  if (!(flags & kPXNetworkReachabilityFlagsReachable)) return "no route";
  std::string text;
  for (const auto& [bit, word] : kWords) {
    if (!(flags & bit)) continue;
    if (!text.empty()) text += ", ";
    text += word;
  }
  return text;
}

void print(bool available, uint32_t flags) {
  std::printf("network available: %s (%s)\n", available ? "yes" : "no", describeFlags(flags).c_str());
  std::fflush(stdout);  // one line at a time, also into a pipe
}

}  // namespace

int run(const std::vector<std::string_view>& args) {
  bool watch = false;
  for (std::string_view arg : args) {
    if (arg != "--watch") {
      std::fprintf(stderr, "pxkit: online: unknown option '%.*s'\nTry 'pxkit --help'.\n",
                   static_cast<int>(arg.size()), arg.data());
      return 2;
    }
    watch = true;
  }

  // Made and switched on here, on the main thread, at once.
  PXNetworkAvailabilityMonitor* monitor = PXNetworkAvailabilityMonitor::sharedMonitor();
  bool available = monitor->networkAvailable();
  uint32_t flags = monitor->reachabilityFlags();
  print(available, flags);
  if (!watch) return available ? 0 : 1;

  // The monitor announces every look at the network state; print only what
  // differs from the last line.
  PXObjectBlockObserver::addObserverForKeyPath(
      *monitor, "networkAvailable", PXKeyValueObservingOptionNew, /*owner=*/nullptr,
      [&](PXObject*, const PXString&, const PXDictionary&, PXObject*) {
        const bool nowAvailable = monitor->networkAvailable();
        const uint32_t nowFlags = monitor->reachabilityFlags();
        if (nowAvailable == available && nowFlags == flags) return;
        available = nowAvailable;
        flags = nowFlags;
        print(available, flags);
      });
  PXRunLoop::main()->run();  // until a signal ends the process
  return available ? 0 : 1;
}

}  // namespace PXKitOnline
