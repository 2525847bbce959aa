// PXKit — preference values by scope: application, user and host.
//
// A value lives in the preferences of one application for one user, either for
// any host (the application's own user defaults file) or for the current host
// only (a by-host file beside it). The by-host file is named with a host key,
// HMAC-SHA256 keyed by the machine id over the application id, in hex, so the
// machine id itself never appears on disk and two applications' keys differ:
//   $XDG_CONFIG_HOME/<app id>/<app id>.plist               any host
//   $XDG_CONFIG_HOME/<app id>/<app id>.<host key>.plist    current host
//   <system config dir>/<app id>/<app id>.plist            any user (read only; /etc/xdg/...)
// The machine id is read from the file named by PXKIT_MACHINE_ID_PATH when that
// is set (tests), else /etc/machine-id, else /var/lib/dbus/machine-id, else the
// host name.
//
//   PXValue id = PXPreferences::copyValue("MetricsRandomSystemID", kPXPreferencesCurrentApplication,
//                                         kPXPreferencesCurrentUser, kPXPreferencesCurrentHost);
//   if (!id) {
//     PXPreferences::setValue("MetricsRandomSystemID", "6F9619FF-...", kPXPreferencesCurrentApplication,
//                             kPXPreferencesCurrentUser, kPXPreferencesCurrentHost);
//     (void)PXPreferences::synchronize(kPXPreferencesCurrentApplication, kPXPreferencesCurrentUser,
//                                      kPXPreferencesCurrentHost);
//   }
//   PXValue other = PXPreferences::copyAppValue("LastUsed", "org.example.Editor");
//
// Values of the current application for any host are those of
// PXUserDefaults::standardUserDefaults() (one store, one view). Writes are
// seen by this process at once and written to disk by synchronize(), a
// read-modify-write under the file's lock like PXUserDefaults::synchronize.
//
// Thread safety: any thread.
#pragma once

#include <pxkit/export.h>
#include <pxkit/objects/PXError.h>
#include <pxkit/objects/PXValue.h>

#include <string>
#include <string_view>

// Scope names. An application is an application id or kPXPreferencesCurrentApplication.
PXKIT_EXPORT extern const char* const kPXPreferencesCurrentApplication;  // "kPXPreferencesCurrentApplication"
PXKIT_EXPORT extern const char* const kPXPreferencesCurrentUser;         // "kPXPreferencesCurrentUser"
PXKIT_EXPORT extern const char* const kPXPreferencesAnyUser;             // "kPXPreferencesAnyUser"
PXKIT_EXPORT extern const char* const kPXPreferencesCurrentHost;         // "kPXPreferencesCurrentHost"
PXKIT_EXPORT extern const char* const kPXPreferencesAnyHost;             // "kPXPreferencesAnyHost"

class PXKIT_EXPORT PXPreferences {
 public:
  PXPreferences() = delete;

  // The value of `key` in the given scope, or absent (also for a scope that is
  // not supported: another user by name, any user with the current host).
  static PXValue copyValue(std::string_view key, std::string_view applicationID, std::string_view user,
                           std::string_view host);
  // Sets (an absent value removes) `key` in the given scope for this process at
  // once, and on disk at the next synchronize of the scope. Returns false, and
  // changes nothing, for a read-only or unsupported scope or a value that is
  // not a property-list value.
  static bool setValue(std::string_view key, const PXValue& value, std::string_view applicationID,
                       std::string_view user, std::string_view host);
  // Writes the scope's changes and reads in others' (see PXUserDefaults::synchronize).
  [[nodiscard]] static bool synchronize(std::string_view applicationID, std::string_view user,
                                        std::string_view host, PXErrorRef* error = nullptr);

  // The current user's value of `key` for the application `applicationID`, any
  // host: from that application's preferences file (read afresh on each call),
  // else — when the application keeps its settings in GSettings under a schema
  // of that id — its GSettings value. Absent when neither has it.
  static PXValue copyAppValue(std::string_view key, std::string_view applicationID);

  // The host key for `applicationID` (64 lower-case hex digits); empty when no
  // machine identity can be found at all.
  static std::string hostKey(std::string_view applicationID);
  // The file of a scope, or "" for an unsupported scope.
  static std::string filePath(std::string_view applicationID, std::string_view user, std::string_view host);
};
