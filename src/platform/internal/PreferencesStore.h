// PXKit internal — one preferences file and this process's view of it.
//
// A store holds what the file held when last read or written ("disk") and the
// changes this process made since ("pending": key → new value, or removal).
// What callers see is disk with pending on top. synchronize() is a
// read-modify-write under the file's advisory lock (AtomicFile.h): it reads the
// file as other processes left it, lays this process's pending changes over it,
// and replaces the file atomically and durably — so two processes that set
// different keys at the same time both keep their keys.
//
// There is one store per file per process (forPath), shared by every object
// that reads or writes that file, so they all see one another's changes.
//
// Thread safety: every member may be called from any thread. No callback runs
// under the store's locks.
#pragma once

#include <pxkit/objects/PXDictionary.h>
#include <pxkit/objects/PXError.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace pxkit::internal {

// ---- Where preferences live ----------------------------------------------------
// The host's application id: the main bundle's identifier, else the program name.
std::string currentApplicationID();
// Whether `id` can name a directory and a file: not empty, not "." or "..", no '/' or NUL.
bool isUsableApplicationID(std::string_view id);
// $XDG_CONFIG_HOME when set to an absolute path, else GLib's user config directory.
std::string userConfigHome();
// <config home>/<id>/<id><suffix>.plist
std::string preferencesFilePath(std::string_view applicationID, std::string_view suffix = {});

// What a preferences file held when read.
struct PreferencesDiskState {
  std::string bytes;           // the file's bytes ("" when missing)
  PXRef<PXDictionary> values;  // its root dictionary; empty when missing
  uint64_t generation = 0;     // the store's generation at the time of the read
};

class PreferencesStore {
 public:
  // The store of `path`, made (and the file read) on first use; kept for the process's lifetime.
  static std::shared_ptr<PreferencesStore> forPath(const std::string& path);

  explicit PreferencesStore(std::string path);

  const std::string& path() const noexcept { return path_; }

  // The value for `key` as this process sees it; absent when missing.
  PXValue objectForKey(std::string_view key) const;
  // Every key and value as this process sees them (immutable snapshot).
  PXRef<PXDictionary> dictionaryRepresentation() const;

  // Sets `key` to `value` (absent: removes it) for this process at once and for
  // the file at the next synchronize. `value` must already be a deep immutable
  // property-list value (see deepImmutableCopy).
  void setObject(const PXValue& value, std::string_view key);
  bool hasPendingChanges() const;

  // The file's current content, or nothing when its bytes are those last seen
  // or it cannot be read as a property list (a writer that does not replace the
  // file atomically may be half way through; a later look will tell).
  std::optional<PreferencesDiskState> readIfChanged() const;
  // The keys whose visible values would change if `state` were adopted.
  std::vector<std::string> keysChangedBy(const PreferencesDiskState& state) const;
  // Takes `state` as the file's content, pending changes staying on top. False
  // (and nothing changed) when the store has seen a newer content since the read.
  bool adopt(const PreferencesDiskState& state);

  // Writes pending changes by read-modify-write under the lock (nothing is
  // written when nothing changed). `lateKeys` receives the keys whose visible
  // values changed because of what others had written meanwhile.
  bool synchronize(std::vector<std::string>* lateKeys, PXErrorRef* error);

  // A copy of `value` whose containers and data are all immutable, or absent
  // when `value` holds something a preferences file cannot (null, objects other
  // than arrays, dictionaries and data, non-string keys, bad strings or dates).
  static PXValue deepImmutableCopy(const PXValue& value);

 private:
  // Pending changes mark removals with null, which no property list holds.
  static bool isRemoval(const PXValue& v) { return v.isNull(); }
  PXRef<PXMutableDictionary> mergedLocked(const PXDictionary& disk) const;
  static std::vector<std::string> differingKeys(const PXDictionary& a, const PXDictionary& b);
  static PXRef<PXDictionary> parse(const std::string& bytes, bool* ok);

  const std::string path_;
  std::mutex syncMutex_;  // one synchronize at a time in this process
  mutable std::mutex mutex_;
  PXRef<PXDictionary> disk_;            // the file as last read or written
  PXRef<PXMutableDictionary> pending_;  // key → value, or null for a removal
  PXRef<PXMutableDictionary> visible_;  // disk_ with pending_ on top
  std::string lastBytes_;
  uint64_t generation_ = 0;
};

}  // namespace pxkit::internal
