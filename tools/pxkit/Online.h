// `pxkit online [--watch]`: whether the network is available, as the kit's
// shared network availability monitor sees it.
//
//   $ pxkit online
//   network available: yes (reachable)
//   $ pxkit online --watch          # then one line per change, until interrupted
//   network available: yes (reachable)
//   network available: no (no route)
//
// The words in parentheses are the reachability flags the verdict was decided
// on. Exit status: 0 when available, 1 when not, 2 for a command line that
// cannot be understood; with --watch the tool runs until a signal ends it.
#pragma once

#include <string_view>
#include <vector>

namespace PXKitOnline {

// Runs the command with the arguments after "online".
int run(const std::vector<std::string_view>& args);

}  // namespace PXKitOnline
