// `pxkit state [--app ID]`: what the kit keeps for an application — its
// metrics, the papercuts waiting for a receipt, and the exact JSON body its
// next submission will post — so the user can see what leaves the machine
// before it does.
//
//   $ pxkit state --app org.example.Editor
//   application: org.example.Editor
//   system ID: 6F9619FF-8B86-D011-B42D-00C04FC964FF
//   metrics (2):
//     com.example.clicks [toolbar] = 3
//     com.example.editing = 420
//   papercuts waiting (1):
//     3f2b...e1  2026-11-24 00:00:01 UTC  2 metrics
//   last submission: 2026-11-23 12:00:00 UTC
//   next submission body (312 bytes):
//   {"papercuts":[{"packageID":"3f2b...e1",...}]}
//
// Without --app the demo's sample application (org.pxkit.DemoEditor) is shown.
// Everything is read from the application's preferences for this user and
// host ($XDG_CONFIG_HOME/<ID>/); nothing is written, not even a system ID.
// The body is the one a submission made now from the stored state would post:
// the stored papercuts, plus the day's papercut when the local date has
// changed since the period began, plus one of the period so far when the
// application has never submitted (values the application sets afresh at each
// launch, such as fixed values, are not stored and so not shown). "none" when
// nothing would be sent.
//
// Exit status: 0 when a state was shown, 1 when the application has no stored
// state (no system ID or no "Metrics" entry for it, or one that does not
// decode), 2 for a command line that cannot be understood.
#pragma once

#include <string_view>
#include <vector>

namespace PXKitState {

// Runs the command with the arguments after "state".
int run(const std::vector<std::string_view>& args);

}  // namespace PXKitState
