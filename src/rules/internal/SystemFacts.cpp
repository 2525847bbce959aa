// Facts of the system below a root directory; see SystemFacts.h.
#include "rules/internal/SystemFacts.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cerrno>

namespace pxkit::rules {

namespace {

std::string_view trimmedRight(std::string_view text) {
  while (!text.empty() && (text.back() == '\0' || text.back() == '\n' || text.back() == '\r' ||
                           text.back() == ' ' || text.back() == '\t'))
    text.remove_suffix(1);
  return text;
}

std::string_view trimmed(std::string_view text) {
  text = trimmedRight(text);
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
  return text;
}

bool isDirectory(const std::string& path) {
  struct stat info {};
  return stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

// The value of an os-release assignment: quotes removed, escapes resolved.
std::optional<std::string> unquote(std::string_view raw) {
  if (raw.empty()) return std::string();
  const char quote = raw.front();
  if (quote != '"' && quote != '\'') {
    // Unquoted values may not hold white space or shell characters.
    if (raw.find_first_of(" \t\"'`$\\") != std::string_view::npos) return std::nullopt;
    return std::string(raw);
  }
  if (raw.size() < 2 || raw.back() != quote) return std::nullopt;
  std::string_view inner = raw.substr(1, raw.size() - 2);
  if (quote == '\'') return std::string(inner);
  std::string value;
  for (size_t i = 0; i < inner.size(); ++i) {
    if (inner[i] == '\\' && i + 1 < inner.size() &&
        std::string_view("\"\\$`").find(inner[i + 1]) != std::string_view::npos) {
      value += inner[++i];
    } else {
      value += inner[i];
    }
  }
  return value;
}

}  // namespace

std::string pathBelowRoot(std::string_view root, std::string_view relative) {
  std::string path(root);
  if (path.empty() || path.back() != '/') path += '/';
  while (!relative.empty() && relative.front() == '/') relative.remove_prefix(1);
  path += relative;
  return path;
}

// Plain reads: the facts are hundreds of small kernel files (a memory block's
// "online", a CPU's topology), where a stream's set-up costs more than the read.
std::optional<std::string> readWholeFile(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return std::nullopt;
  std::string contents;
  char buffer[4096];
  for (;;) {
    const ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n == 0) break;
    if (n < 0) {
      if (errno == EINTR) continue;
      ::close(fd);
      return std::nullopt;
    }
    contents.append(buffer, static_cast<size_t>(n));
  }
  ::close(fd);
  return contents;
}

std::optional<std::string> osReleaseValue(std::string_view text, std::string_view key) {
  std::optional<std::string> found;
  while (!text.empty()) {
    const size_t end = text.find('\n');
    std::string_view line = trimmed(text.substr(0, end));
    text = end == std::string_view::npos ? std::string_view() : text.substr(end + 1);
    if (line.empty() || line.front() == '#') continue;
    const size_t equals = line.find('=');
    if (equals == std::string_view::npos || line.substr(0, equals) != key) continue;
    if (std::optional<std::string> value = unquote(line.substr(equals + 1))) found = std::move(value);
  }
  return found;
}

std::string osReleaseVersion(std::string_view root) {
  for (const char* relative : {"etc/os-release", "usr/lib/os-release"}) {
    if (std::optional<std::string> text = readWholeFile(pathBelowRoot(root, relative))) {
      // The first file present is the system's, with or without a version.
      return osReleaseValue(*text, "VERSION_ID").value_or("");
    }
  }
  return "";
}

std::string kernelRelease(std::string_view root) {
  if (std::optional<std::string> text = readWholeFile(pathBelowRoot(root, "proc/sys/kernel/osrelease"))) {
    return std::string(trimmed(*text));
  }
  if (root == "/") {
    struct utsname names {};
    if (uname(&names) == 0) return names.release;
  }
  return "";
}

ComputerModel computerModel(std::string_view root) {
  ComputerModel result;
  const std::string dmi = pathBelowRoot(root, "sys/class/dmi/id");
  if (isDirectory(dmi)) {
    result.described = true;
    if (std::optional<std::string> name = readWholeFile(dmi + "/product_name")) {
      std::string_view text = trimmed(*name);
      if (!text.empty()) result.model = std::string(text);
    }
    if (result.model) return result;
  }
  for (const char* relative : {"sys/firmware/devicetree/base/model", "proc/device-tree/model"}) {
    if (std::optional<std::string> model = readWholeFile(pathBelowRoot(root, relative))) {
      result.described = true;
      std::string_view text = trimmed(*model);
      if (!text.empty()) result.model = std::string(text);
      return result;
    }
  }
  return result;
}

std::optional<ModelParts> splitModelIdentifier(std::string_view model) {
  const size_t comma = model.find(',');
  if (comma == std::string_view::npos) return std::nullopt;
  for (size_t i = comma; i-- > 1;) {
    const char c = model[i];
    if ((c < '0' || c > '9') && c != ',') {
      return ModelParts{std::string(model.substr(0, i + 1)), std::string(model.substr(i + 1))};
    }
  }
  return std::nullopt;
}

}  // namespace pxkit::rules
