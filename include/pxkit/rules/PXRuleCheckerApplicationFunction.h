// PXKit — the rule provider of installed applications and the host application.
//
// Identifier and key path prefix "application": "application.installed.AppName.Files"
// and "${application(installed.AppName.Files)}" ask the same thing. The
// argument is a string "<verb>.<application key>", split at its first "." only:
//
//   installed.<key>        true when the application's path is found, else false
//   path.<key>             the application's path, or absent
//   hostApplicationPath.   the host's bundle path (PXBundle::mainBundle()); the
//                          key after the "." is looked up but not used
//   hostApplicationBundleID  (the whole argument) the host's bundle identifier
//   anything else          absent
//
// An application key "AppName.<name>" names an application by its unlocalised
// Name; any other key is a desktop-file id without ".desktop"
// ("org.example.Editor", whose own dots are kept; "kde-org.example.Foo" for
// applications/kde/org.example.Foo.desktop). Applications are the desktop
// entries of the XDG data directories (the first directory holding an id
// decides; Hidden entries count as absent); an application's path is the
// directory of the program its TryExec or Exec line starts, so an entry
// whose program cannot be found is not installed.
//
// Kept on purpose: "hostApplicationBundleID" is compared with the whole
// argument while "hostApplicationPath" is a verb, so
// "application.hostApplicationPath" answers absent and must be written
// "application.hostApplicationPath." with its trailing dot.
//
// The returnString flag is not looked at: booleans stay booleans (spliced into
// text as "1" and "0"). Failures give absent, or false for "installed";
// nothing is logged or raised.
//
// Thread safety: keeps no state beyond its identifier and prefix; resultFor
// may run on any thread.
#pragma once

#include <pxkit/export.h>
#include <pxkit/rules/PXRuleCheckerFunction.h>

class PXKIT_EXPORT PXRuleCheckerApplicationFunction : public PXRuleCheckerFunction {
  PX_DECLARE_CLASS(PXRuleCheckerApplicationFunction)

 public:
  // A new provider ("+function").
  static PXRef<PXRuleCheckerApplicationFunction> function();

  PXRuleCheckerApplicationFunction();

  PXValue resultFor(const PXValue& argument, bool returnString) override;
};
