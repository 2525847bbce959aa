// PXKit internal — whole-file reads and crash-safe replacement under an advisory lock.
#include "platform/internal/AtomicFile.h"

#include <dirent.h>
#include <fcntl.h>
#include <pxkit/platform/PXPropertyList.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/internal/GLibHandles.h"

namespace pxkit::internal {

namespace {

bool fail(PXErrorRef* error, int64_t code, const std::string& reason) {
  return error
             ? PXSetError(error, PXError::errorWithDomain(kPXPropertyListErrorDomain, code, PXString(reason)))
             : false;
}
bool failWithErrno(PXErrorRef* error, int64_t code, const char* what, const std::string& path, int err) {
  return fail(error, code, std::string(what) + " " + path + ": " + std::strerror(err));
}

// The characters mkstemp-style templates are filled with.
bool isTemplateChar(char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9');
}

}  // namespace

FileLock::FileLock(const std::string& lockPath, PXErrorRef* error) {
  std::string dir = glib::String(g_path_get_dirname(lockPath.c_str())).get();
  makeDirectories(dir);
  int fd = ::open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (fd < 0) {
    failWithErrno(error, PXPropertyListWriteInvalidError, "cannot open lock file", lockPath, errno);
    return;
  }
  while (::flock(fd, LOCK_EX) != 0) {
    if (errno == EINTR) continue;
    failWithErrno(error, PXPropertyListWriteInvalidError, "cannot lock", lockPath, errno);
    ::close(fd);
    return;
  }
  fd_ = fd;
}

FileLock::~FileLock() {
  if (fd_ >= 0) ::close(fd_);  // closing the only descriptor drops the lock
}

std::string lockPathFor(const std::string& path) {
  return path + ".lock";
}

bool readWholeFile(const std::string& path, std::string* out, bool* exists, PXErrorRef* error) {
  out->clear();
  *exists = false;
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    if (errno == ENOENT || errno == ENOTDIR) return true;
    return failWithErrno(error, PXPropertyListReadCorruptError, "cannot open", path, errno);
  }
  *exists = true;
  char buf[16384];
  for (;;) {
    ssize_t n = ::read(fd, buf, sizeof buf);
    if (n > 0) {
      out->append(buf, static_cast<size_t>(n));
      continue;
    }
    if (n == 0) break;
    if (errno == EINTR) continue;
    int err = errno;
    ::close(fd);
    return failWithErrno(error, PXPropertyListReadCorruptError, "cannot read", path, err);
  }
  ::close(fd);
  return true;
}

bool makeDirectories(const std::string& directory) {
  if (g_mkdir_with_parents(directory.c_str(), 0700) == 0) return true;
  struct stat st {};
  return ::stat(directory.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool writeFileAtomically(const std::string& path, std::string_view bytes, PXErrorRef* error) {
  std::string dir = glib::String(g_path_get_dirname(path.c_str())).get();
  if (!makeDirectories(dir)) {
    return failWithErrno(error, PXPropertyListWriteInvalidError, "cannot make directory", dir, errno);
  }
  // CONSISTENT: temporary + rename; DURABLE: fsync the data before the rename
  // and the directory after it, also when the file is new.
  glib::Error written;
  if (!g_file_set_contents_full(
          path.c_str(), bytes.data(), static_cast<gssize>(bytes.size()),
          static_cast<GFileSetContentsFlags>(G_FILE_SET_CONTENTS_CONSISTENT | G_FILE_SET_CONTENTS_DURABLE),
          0600, glib::out(written))) {
    return fail(error, PXPropertyListWriteInvalidError,
                written ? std::string(written->message) : "cannot write " + path);
  }
  return true;
}

int removeStaleTemporaries(const std::string& path) {
  std::string dir = glib::String(g_path_get_dirname(path.c_str())).get();
  std::string prefix = std::string(glib::String(g_path_get_basename(path.c_str())).get()) + ".";
  DIR* d = ::opendir(dir.c_str());
  if (!d) return 0;
  int removed = 0;
  while (dirent* entry = ::readdir(d)) {
    std::string_view name(entry->d_name);
    if (name.size() != prefix.size() + 6 || name.substr(0, prefix.size()) != prefix) continue;
    std::string_view suffix = name.substr(prefix.size());
    bool isTemporary = true;
    for (char c : suffix) isTemporary = isTemporary && isTemplateChar(c);
    if (!isTemporary) continue;
    if (::unlinkat(::dirfd(d), entry->d_name, 0) == 0) ++removed;
  }
  ::closedir(d);
  return removed;
}

}  // namespace pxkit::internal
