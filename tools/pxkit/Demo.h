// `pxkit demo`: the kit at work in a sample host application, end to end, in
// a few seconds and without touching the user's own files.
//
// The demo plays an editor, "org.pxkit.DemoEditor", launched twice in a
// throw-away home on a virtual clock that starts at 23:40 local time:
//  1. the first launch records counters from several threads, usage times
//     with autostop and fixed values, shows them, saves the state, ends, and
//     starts the second launch as a new process (this same executable);
//  2. the second launch, a few minutes later, restores the state, checks it
//     against what the first one saved, lets the main loop run past midnight
//     until the daily papercut is cut at 00:00:01, and shows the papercut as
//     JSON and where the state is kept.
// Every step is checked: the demo exits 0 only when all of them held, and
// otherwise prints "FAILED: <what>" and exits 1.
#pragma once

#include <string>

namespace PXKitDemo {

// The whole demonstration (first launch, then the second as a child process).
// With `keep`, the temporary home is left in place and its path printed.
// `self` is the path to re-execute for the second launch ("/proc/self/exe").
int run(bool keep, const std::string& self = "/proc/self/exe");

// The second launch, in the home `root` made by the first one. Internal: the
// first launch runs `pxkit demo --second-launch ROOT`.
int runSecondLaunch(const std::string& root);

}  // namespace PXKitDemo
