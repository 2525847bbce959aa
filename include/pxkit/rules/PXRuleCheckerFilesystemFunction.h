// PXKit — the rule provider of files and of other applications' preferences.
//
// Identifier "filesystem", no key path prefix: reached only by calls with
// named arguments, "${filesystem(do=...;...)}".
//
//   ${filesystem(do=exists;absPath=/opt/editor)} == YES
//   ${filesystem(do=size;bundleID=org.example.Editor;bundlePath=plugins/spell.so)} > 1000
//   ${filesystem(do=sha1sum;absPath=/etc/editor.conf)} == 'da39a3ee5e6b4b0d3255bfef95601890afd80709'
//   ${filesystem(do=prefsValue;bundleID=org.example.Editor;key=LastUsed)} == 'spell'
//
// Arguments: "do" (the operation, required), "absPath" (an absolute path),
// "bundlePath" (a path below an application's directory, used only without
// "absPath"), "bundleID" (the application: the directory "bundlePath" is
// below — the directory of its program, see PXRuleCheckerVersionFunction —
// and whose preferences "prefs…" reads; without it the host's
// PXBundle::bundlePath()), "key" (a preference key).
//
//   do=exists       true when a file or directory is at the path; false otherwise
//                   (also without any path)
//   do=size         the file's size in bytes (unsigned number); absent when it
//                   cannot be read or is not a regular file
//   do=date         the file's content modification date (PXDate); absent when unreadable
//   do=sha1sum      the SHA-1 digest of the whole file as 40 lower-case
//                   hexadecimal digits; absent when it cannot be read
//   do=md5sum       the MD5 digest, 32 lower-case hexadecimal digits
//   do=prefsExists  true when the application "bundleID" has a value under
//                   "key" (PXPreferences::copyAppValue), false otherwise
//   do=prefsValue   that value, or absent
// Any other operation, a missing "do", or an argument that is not a dictionary
// answers absent; a "fallbackValue" argument plays no part here. The results
// are typed whatever returnString says. Nothing is logged or raised.
//
// The digests read the whole file into memory in one piece, and tell the
// kernel afterwards that its pages need not stay cached: meant for small files.
//
// Thread safety: no state of its own; resultFor may run on any thread.
#pragma once

#include <pxkit/export.h>
#include <pxkit/rules/PXRuleCheckerFunction.h>

class PXKIT_EXPORT PXRuleCheckerFilesystemFunction : public PXRuleCheckerFunction {
  PX_DECLARE_CLASS(PXRuleCheckerFilesystemFunction)

 public:
  // A new provider ("+function").
  static PXRef<PXRuleCheckerFilesystemFunction> function();

  PXRuleCheckerFilesystemFunction();

  PXValue resultFor(const PXValue& argument, bool returnString) override;
};
