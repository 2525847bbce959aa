// PXKit — the host application's user defaults: a per-application key/value store.
//
// PXUserDefaults::standardUserDefaults() is the host's own preferences, kept in
// a property-list file (docs/file-formats.md) at
//   $XDG_CONFIG_HOME/<application id>/<application id>.plist
// where the application id is PXBundle::mainBundle()->bundleIdentifier() (the
// program name when there is none). Values are property-list values:
// strings, numbers, booleans, dates, data, and arrays and dictionaries of them.
//
//   PXUserDefaults* defaults = PXUserDefaults::standardUserDefaults();
//   defaults->registerDefaults(*PXDictionary::dictionaryWithEntries({{"Volume", 7}}));
//   defaults->setBool(true, "PXMetricsDisabled");
//   if (!defaults->synchronize(&error)) ...;      // on disk now, atomically and durably
//   int64_t volume = defaults->integerForKey("Volume");   // 7 until someone sets it
//
// Several processes may share one file (the application, a settings tool, the
// pxkit CLI). synchronize() is a read-modify-write under an advisory lock, so
// each process's keys survive the others' writes; the file is replaced
// atomically (a crash leaves the old file or the new one). Changes another
// process writes are noticed through a file monitor on the main loop (the
// default GLib main context), read in, and announced like local changes.
//
// Announcing a change of KEY: key-value observers of KEY on this object and on
// the shared PXUserDefaultsController's values proxy (key path "values.KEY" on
// the controller) hear of it, with old and new values, on the thread that made
// the change (the main thread for changes from other processes); then
// kPXUserDefaultsDidChangeNotification is posted on the default notification
// centre with this object as sender.
//
// Changes made with setObject are seen by this process at once and written by
// the next synchronize(), which the main loop also runs soon after a change.
//
// Thread safety: every member may be called from any thread. Observers run with
// no lock of the store held, so they may read and write the defaults.
#pragma once

#include <pxkit/export.h>
#include <pxkit/objects/PXArray.h>
#include <pxkit/objects/PXData.h>
#include <pxkit/objects/PXDictionary.h>
#include <pxkit/objects/PXError.h>
#include <pxkit/objects/PXObject.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

// Posted on the default notification centre after the defaults changed (in this
// process or in another one); the sender is the PXUserDefaults object.
PXKIT_EXPORT extern const char* const
    kPXUserDefaultsDidChangeNotification;  // "NSUserDefaultsDidChangeNotification"

namespace pxkit::internal {
class PreferencesStore;
struct UserDefaultsMonitor;
}  // namespace pxkit::internal

class PXKIT_EXPORT PXUserDefaults : public PXObject {
  PX_DECLARE_CLASS(PXUserDefaults)

 public:
  // The host application's defaults. Never null; lives until the process ends.
  // The file is found (and read) on the first call: set XDG_CONFIG_HOME and the
  // bundle identity before it.
  static PXUserDefaults* standardUserDefaults();
  // The defaults of the application `applicationID` for this user: the standard
  // defaults when that is the host's id, otherwise one shared object per id,
  // which lives until the process ends. Null for an id that cannot name a file
  // (empty, ".", "..", or holding '/').
  static PXUserDefaults* userDefaultsForApplication(std::string_view applicationID);

  // The application id these defaults belong to, and the file that keeps them.
  const std::string& applicationIdentifier() const noexcept { return applicationID_; }
  const std::string& filePath() const noexcept { return path_; }

  // ---- Reading -------------------------------------------------------------
  // The value for `key`: the one set for this application, else the registered
  // default, else absent.
  PXValue objectForKey(std::string_view key) const;
  // A string value; a number as its text ("1"); otherwise absent.
  PXString stringForKey(std::string_view key) const;
  // Values of that type, else empty.
  PXRef<PXArray> arrayForKey(std::string_view key) const;
  PXRef<PXDictionary> dictionaryForKey(std::string_view key) const;
  PXRef<PXData> dataForKey(std::string_view key) const;
  // Numbers as they convert; strings as typed text reads ("YES", "true", "1"
  // are true; "42" is 42); anything else false / 0.
  bool boolForKey(std::string_view key) const;
  int64_t integerForKey(std::string_view key) const;
  double doubleForKey(std::string_view key) const;
  // Every key: the registered defaults with the set values over them.
  PXRef<PXDictionary> dictionaryRepresentation() const;

  // ---- Writing -------------------------------------------------------------
  // Sets `key` (an absent value removes it). The value is copied (containers
  // and data as immutable copies). Raises PXException kPXInvalidArgumentException
  // when `value` is not a property-list value (null, another kind of object,
  // a dictionary key that is not a string...).
  void setObject(const PXValue& value, std::string_view key);
  void removeObjectForKey(std::string_view key);
  void setBool(bool value, std::string_view key);
  void setInteger(int64_t value, std::string_view key);
  void setDouble(double value, std::string_view key);
  // Adds the entries of `defaults` to the registered defaults: values answered
  // for keys that were never set. Not written to the file. Same checks as setObject.
  void registerDefaults(const PXDictionary& defaults);

  // Writes this process's changes and reads everyone else's: read-modify-write
  // of the file under its lock, replaced atomically and durably (mode 0600).
  // False, with `error` set, when the file could not be written; the changes
  // then stay pending for the next call.
  [[nodiscard]] bool synchronize(PXErrorRef* error = nullptr);

  // Key-value coding reads and writes the defaults: valueForKey("Volume") is objectForKey("Volume").
  PXValue valueForKey(std::string_view key) const override;
  void setValueForKey(const PXValue& value, std::string_view key) override;

  ~PXUserDefaults() override;

 private:
  friend class PXUserDefaultsController;
  friend struct pxkit::internal::UserDefaultsMonitor;
  PXUserDefaults(std::string applicationID, std::string path);

  // Objects that announce this object's key changes as their own (the controller's values proxy).
  void addChangeMirror(PXObject* mirror);
  // Brackets `change` with will/did announcements of `keys`, then posts the notification.
  template <class Change>
  void announce(const std::vector<std::string>& keys, Change&& change);
  void reloadFromFile();
  void scheduleSynchronize();
  void startMonitoring();

  const std::string applicationID_;
  const std::string path_;
  std::shared_ptr<pxkit::internal::PreferencesStore> store_;
  mutable std::mutex mutex_;  // registered_ and mirrors_
  PXRef<PXMutableDictionary> registered_;
  std::vector<PXWeakRef<PXObject>> mirrors_;
  std::atomic<bool> synchronizeScheduled_{false};
  std::unique_ptr<pxkit::internal::UserDefaultsMonitor> monitor_;
};
