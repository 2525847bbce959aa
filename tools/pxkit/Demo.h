// `pxkit demo`: the kit at work in a sample host application, end to end, in
// a few seconds and without touching the user's own files.
//
// The demo tells one day of an editor, "org.pxkit.DemoEditor", launched twice
// in a throw-away home on a virtual clock that starts at 23:40 local time, with
// a collector (pxkit-collector, a child process on an ephemeral loopback port
// with its database in that home) as the metrics collection endpoint:
//  1. the first launch records counters from several threads, usage times
//     with autostop and fixed values, shows them, saves the state, quits, and
//     starts the second launch as a new process (this same executable);
//  2. the second launch, a few minutes later, restores the state, records a
//     little more, lets the main loop run past midnight until the daily
//     papercut is cut at 00:00:01, submits it to the collector and shows the
//     posted document, the receipt (which takes the papercut out of the store)
//     and the collector's summary.
// The demo tells; the tests check (tests/tools/pxkit_demo_test.cpp). A step
// the story cannot go on without prints "FAILED: <what>" and exits 1.
//
// The collector's executable: $PXKIT_COLLECTOR, else pxkit-collector beside
// this tool (installed), else ../collector/pxkit-collector (the build tree).
#pragma once

#include <string>

namespace PXKitDemo {

// The whole demonstration (collector, first launch, then the second as a child
// process); 0 when the story ran to its end. With `keep`, the temporary home
// is left in place and its path printed. With `serve`, the collector keeps
// running at the end and the dashboard's URL is printed, until SIGINT or
// SIGTERM. `self` is the path to re-execute for the second launch
// ("/proc/self/exe"). Main thread, called once per process.
int run(bool keep, bool serve = false, const std::string& self = "/proc/self/exe");

// The second launch, in the home `root` made by the first one. Internal: the
// first launch runs `pxkit demo --second-launch ROOT`.
int runSecondLaunch(const std::string& root);

}  // namespace PXKitDemo
