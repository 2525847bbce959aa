// PXKit — the rule provider of versions: the OS, the kernel, applications, the computer.
//
// Identifier and key path prefix "version": "version.os" and "${version(os)}"
// ask the same thing. Subjects (a string argument, the rest of a key path, or
// the "of" option of a dictionary argument):
//
//   os                    the OS release: VERSION_ID of os-release ("12" on Debian 12)
//   kernel                the kernel release ("6.1.0-18-amd64")
//   hostApplication       the host's CFBundleVersion (PXBundle::mainBundle())
//   hostApplicationShort  the host's CFBundleShortVersionString
//   computerIdentifier    the computer's model identifier (DMI product name, or
//                         the device tree's model), e.g. "MacBookPro8,1"
//   computerModel         its name part ("MacBookPro"), computerVersion its
//                         version part ("8,1"), computerVersionMajor ("8"),
//                         computerVersionMinor ("1"); absent for a model
//                         without a comma
//   application           with options: the version of the application of the
//                         "bundleID" option ("useShortVersion" asks for the
//                         short version; both are the newest metainfo release)
//   any other string      (without options) the version of the application with
//                         that desktop-file id, or of the application named
//                         after "AppName." ("${version(AppName.Text Editor)}")
//
// Options of the dictionary form: "of", "bundleID", "useShortVersion",
// "greaterThan", "equalTo", "lessThan". Each comparison option compares the
// answer V with its operand by the kit's version ordering (dotted components,
// numeric where they differ) and, when it holds, makes the result true.
// Kept on purpose: when none holds the result stays V, not false, so a rule
// tests for true: "${version(of=os;greaterThan=11)} == YES". Several
// comparison options act as an OR.
//
// A machine without DMI and without a device-tree model answers absent to
// every subject beginning with "computer", comparisons or not. Missing data
// gives absent; with returnString the result is its "%@" text ("(null)" for
// absent, "1" for true). Nothing is logged or raised.
//
// Where the facts come from is read below a system root, "/" by default; a
// test or a tool hands in another tree holding etc/os-release,
// proc/sys/kernel/osrelease, sys/class/dmi/id/product_name, ...
// Applications are found in the XDG data directories (desktop files and
// AppStream metainfo), whatever the root.
//
// Thread safety: immutable after construction; resultFor may run on any thread.
#pragma once

#include <pxkit/export.h>
#include <pxkit/rules/PXRuleCheckerFunction.h>

#include <string>

class PXKIT_EXPORT PXRuleCheckerVersionFunction : public PXRuleCheckerFunction {
  PX_DECLARE_CLASS(PXRuleCheckerVersionFunction)

 public:
  // A new provider reading the running system ("+function").
  static PXRef<PXRuleCheckerVersionFunction> function();

  // Reads the OS and kernel releases and the host's versions once, below `systemRoot`.
  explicit PXRuleCheckerVersionFunction(std::string systemRoot = "/");

  PXValue resultFor(const PXValue& argument, bool returnString) override;

  // The facts read at construction; absent when unknown.
  const PXString& kernelRelease() const noexcept { return kernelRelease_; }
  const PXString& osRelease() const noexcept { return osRelease_; }
  const PXString& hostApplicationVersion() const noexcept { return hostApplicationVersion_; }
  const PXString& hostApplicationVersionShort() const noexcept { return hostApplicationVersionShort_; }
  const std::string& systemRoot() const noexcept { return systemRoot_; }

 private:
  std::string systemRoot_;
  PXString kernelRelease_;
  PXString osRelease_;
  PXString hostApplicationVersion_;
  PXString hostApplicationVersionShort_;
};
