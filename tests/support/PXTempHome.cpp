#include "support/PXTempHome.h"

#include <stdlib.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <system_error>

namespace fs = std::filesystem;

PXTempHome::PXTempHome() {
  // No GLib here: the point of the fixture is to come before GLib's first look.
  std::string pattern = (fs::temp_directory_path() / "pxkit-home-XXXXXX").string();
  if (!mkdtemp(pattern.data())) throw std::runtime_error("cannot make a temporary home under " + pattern);
  root_ = pattern;
  for (const std::string& dir : {home(), configHome(), dataHome(), stateHome(), cacheHome(), runtimeDir(),
                                 systemDataDir(), systemConfigDir()})
    fs::create_directories(dir);
  chmod(runtimeDir().c_str(), 0700);

  setVariable("HOME", home());
  setVariable("XDG_CONFIG_HOME", configHome());
  setVariable("XDG_DATA_HOME", dataHome());
  setVariable("XDG_STATE_HOME", stateHome());
  setVariable("XDG_CACHE_HOME", cacheHome());
  setVariable("XDG_RUNTIME_DIR", runtimeDir());
  setVariable("XDG_DATA_DIRS", systemDataDir());
  setVariable("XDG_CONFIG_DIRS", systemConfigDir());
}

PXTempHome::~PXTempHome() {
  for (auto it = saved_.rbegin(); it != saved_.rend(); ++it) {
    if (it->second.first) {
      setenv(it->first.c_str(), it->second.second.c_str(), 1);
    } else {
      unsetenv(it->first.c_str());
    }
  }
  std::error_code ignored;
  fs::remove_all(root_, ignored);
}

void PXTempHome::setVariable(const char* name, const std::string& value) {
  const char* old = getenv(name);
  saved_.emplace_back(name, std::make_pair(old != nullptr, old ? std::string(old) : std::string()));
  setenv(name, value.c_str(), 1);
}

std::string PXTempHome::absolute(const std::string& path) const {
  return !path.empty() && path.front() == '/' ? path : root_ + "/" + path;
}

std::string PXTempHome::makeDirectory(const std::string& path) const {
  std::string full = absolute(path);
  fs::create_directories(full);
  return full;
}

std::string PXTempHome::writeFile(const std::string& path, std::string_view contents) const {
  std::string full = absolute(path);
  fs::create_directories(fs::path(full).parent_path());
  std::ofstream out(full, std::ios::binary | std::ios::trunc);
  out.write(contents.data(), static_cast<std::streamsize>(contents.size()));
  if (!out) throw std::runtime_error("cannot write " + full);
  return full;
}
