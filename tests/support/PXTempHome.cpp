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
  const std::pair<const char*, std::string> layout[] = {
      {"HOME", home()},
      {"XDG_CONFIG_HOME", configHome()},
      {"XDG_DATA_HOME", dataHome()},
      {"XDG_STATE_HOME", root_ + "/home/.local/state"},
      {"XDG_CACHE_HOME", root_ + "/home/.cache"},
      {"XDG_RUNTIME_DIR", runtimeDir()},
      {"XDG_DATA_DIRS", systemDataDir()},
      {"XDG_CONFIG_DIRS", systemConfigDir()},
  };
  for (const auto& [name, dir] : layout) {
    fs::create_directories(dir);
    setVariable(name, dir);
  }
  chmod(runtimeDir().c_str(), 0700);
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
