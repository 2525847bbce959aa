// PXKit internal — whole-file reads and crash-safe replacement under an advisory lock.
//
// Preferences files are rewritten read-modify-write by several processes at
// once. The protocol (docs/file-formats.md):
//   1. take an exclusive flock(2) on "<file>.lock" (created 0600 beside the file,
//      never removed, so every process locks the same inode);
//   2. read the file, merge, and replace it with writeFileAtomically: a
//      temporary "<file>.XXXXXX" written and fsync'ed, renamed over the file, then
//      the directory fsync'ed — a reader sees the old file or the new one, never
//      a mix, even if the writer is killed or the machine loses power;
//   3. drop the lock.
// A writer killed between steps leaves at most a stale temporary behind, which
// the next writer (holding the lock, so no write can be in progress) removes.
//
// Failures follow the kit's convention (docs/api-overview.md): false, and a
// PXError through the optional trailing `error`. Preferences files are these
// functions' only users, so the errors are in the property-list domain: code
// PXPropertyListReadCorruptError for a file that cannot be read,
// PXPropertyListWriteInvalidError for one that cannot be locked or written,
// with the system's reason in the description.
//
// Thread safety: functions are thread-safe; a FileLock object belongs to one thread.
#pragma once

#include <pxkit/objects/PXError.h>

#include <string>
#include <string_view>

namespace pxkit::internal {

// An exclusive advisory lock on a lock file, held from construction to
// destruction. Blocks while another process (or another FileLock of this
// process) holds it. The kernel drops it if the holder dies.
class FileLock {
 public:
  // Sets `error` when the lock could not be taken (see locked()).
  explicit FileLock(const std::string& lockPath, PXErrorRef* error = nullptr);
  ~FileLock();
  FileLock(const FileLock&) = delete;
  FileLock& operator=(const FileLock&) = delete;

  bool locked() const noexcept { return fd_ >= 0; }

 private:
  int fd_ = -1;
};

// The lock file that guards `path`: "<path>.lock".
std::string lockPathFor(const std::string& path);

// Reads the whole file into `out`. A missing file is not an error: `exists` is
// false and `out` empty. False (and `error` set) on any other failure.
bool readWholeFile(const std::string& path, std::string* out, bool* exists, PXErrorRef* error = nullptr);

// Replaces `path` with `bytes`, atomically and durably, mode 0600; makes missing
// parent directories (0700). False (and `error` set) when it could not; the old
// file is then untouched.
bool writeFileAtomically(const std::string& path, std::string_view bytes, PXErrorRef* error = nullptr);

// Removes "<path>.XXXXXX" temporaries left by writers that died mid-write. Call
// only while holding the file's lock. Returns how many were removed.
int removeStaleTemporaries(const std::string& path);

// Makes `directory` and its missing parents, mode 0700. True when it exists afterwards.
bool makeDirectories(const std::string& directory);

}  // namespace pxkit::internal
