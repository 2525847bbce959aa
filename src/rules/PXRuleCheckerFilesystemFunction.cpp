// The rule provider of files and of other applications' preferences.
#include <fcntl.h>
#include <pxkit/objects/PXDictionary.h>
#include <pxkit/platform/PXBundle.h>
#include <pxkit/platform/PXDigest.h>
#include <pxkit/platform/PXPreferences.h>
#include <pxkit/rules/PXRuleCheckerFilesystemFunction.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <new>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include "rules/internal/ApplicationLookup.h"

namespace {

// The string of an argument, or nothing when it is missing or not a string.
std::optional<std::string_view> stringArgument(const PXDictionary& arguments, std::string_view name) {
  const PXValue* value = arguments.findStringKey(name);
  if (!value || !value->isString()) return std::nullopt;
  return value->stringValue();
}

// The file an operation is about: "absPath", else "bundlePath" below the
// directory of the application "bundleID" (or of the host).
std::optional<std::string> resolvePath(const PXDictionary& arguments) {
  if (std::optional<std::string_view> absolute = stringArgument(arguments, "absPath"))
    return std::string(*absolute);
  std::optional<std::string_view> relative = stringArgument(arguments, "bundlePath");
  if (!relative) return std::nullopt;
  std::string base;
  if (std::optional<std::string_view> bundleID = stringArgument(arguments, "bundleID")) {
    std::optional<pxkit::rules::InstalledApplication> app =
        pxkit::rules::findApplicationWithIdentifier(*bundleID, pxkit::rules::applicationDataDirs());
    if (!app || app->path.empty()) return std::nullopt;
    base = app->path;
  } else {
    PXString hostPath = PXBundle::mainBundle()->bundlePath();
    if (!hostPath) return std::nullopt;
    base = hostPath.str();
  }
  // Appended as a path component: exactly one "/" between the two.
  while (!base.empty() && base.back() == '/') base.pop_back();
  std::string_view rest = *relative;
  while (!rest.empty() && rest.front() == '/') rest.remove_prefix(1);
  return base + "/" + std::string(rest);
}

// The whole file, read in one piece; nothing when it cannot be read (or
// memory for it cannot be had: a file that claims a size larger than memory).
std::optional<std::string> readFileUncached(const std::string& path) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return std::nullopt;
  struct Closer {
    int fd;
    ~Closer() { close(fd); }
  } closer{fd};
  struct stat info {};
  if (fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) return std::nullopt;
  std::string bytes;
  try {
    bytes.resize(static_cast<size_t>(info.st_size));
    size_t filled = 0;
    for (;;) {
      if (filled == bytes.size()) bytes.resize(bytes.size() + 65536);  // a file that grew, or /proc's size 0
      const ssize_t n = read(fd, bytes.data() + filled, bytes.size() - filled);
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) return std::nullopt;
      if (n == 0) break;
      filled += static_cast<size_t>(n);
    }
    bytes.resize(filled);
  } catch (const std::bad_alloc&) {
    return std::nullopt;
  } catch (const std::length_error&) {
    return std::nullopt;
  }
  // The file was read once for its digest: its pages need not stay in the cache.
  (void)posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED);
  return bytes;
}

PXValue fileSize(const std::string& path) {
  struct stat info {};
  if (stat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) return {};
  return PXValue(static_cast<unsigned long long>(info.st_size));
}

PXValue fileDate(const std::string& path) {
  struct stat info {};
  if (stat(path.c_str(), &info) != 0) return {};
  const double seconds =
      static_cast<double>(info.st_mtim.tv_sec) + static_cast<double>(info.st_mtim.tv_nsec) / 1e9;
  return PXValue(PXDate::dateWithTimeIntervalSince1970(seconds));
}

}  // namespace

PX_DEFINE_CLASS(PXRuleCheckerFilesystemFunction, PXRuleCheckerFunction,
                [](PXClassBuilder<PXRuleCheckerFilesystemFunction>&) {})

PXRef<PXRuleCheckerFilesystemFunction> PXRuleCheckerFilesystemFunction::function() {
  return PXMake<PXRuleCheckerFilesystemFunction>();
}

PXRuleCheckerFilesystemFunction::PXRuleCheckerFilesystemFunction() {
  setFunctionID("filesystem");
}

PXValue PXRuleCheckerFilesystemFunction::resultFor(const PXValue& argument, bool /*returnString*/) {
  PXRef<PXDictionary> arguments = argument.dictionaryValue();
  if (!arguments) return {};
  const PXValue* operation = arguments->findStringKey("do");
  if (!operation) return {};
  const std::string_view op = operation->stringValue();  // "" for a bare "do"

  if (op.starts_with("prefs")) {
    PXValue value;
    std::optional<std::string_view> bundleID = stringArgument(*arguments, "bundleID");
    std::optional<std::string_view> key = stringArgument(*arguments, "key");
    if (bundleID && key) value = PXPreferences::copyAppValue(*key, *bundleID);
    if (op == "prefsExists") return PXValue(static_cast<bool>(value));
    if (op == "prefsValue") return value;
    return {};
  }

  const std::optional<std::string> path = resolvePath(*arguments);
  if (op == "exists") return PXValue(path && access(path->c_str(), F_OK) == 0);
  if (!path) return {};
  if (op == "size") return fileSize(*path);
  if (op == "date") return fileDate(*path);
  if (op == "sha1sum" || op == "md5sum") {
    std::optional<std::string> contents = readFileUncached(*path);
    if (!contents) return {};
    return PXValue(op == "sha1sum" ? PXDigest::sha1Hex(*contents) : PXDigest::md5Hex(*contents));
  }
  return {};
}
