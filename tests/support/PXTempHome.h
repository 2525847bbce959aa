// A throw-away home for one test: HOME and every XDG base directory (XDG_DATA_DIRS and
// XDG_CONFIG_DIRS too, so nothing of the machine leaks in) point into a fresh temporary tree until
// the fixture is destroyed, which restores the variables and removes the tree.
//
//   PXTempHome home;    // first thing: GLib reads these variables once per process
//   home.writeFile(home.dataHome() + "/applications/org.example.App.desktop", "[Desktop Entry]\n...");
#pragma once

#include <stdlib.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

class PXTempHome {
 public:
  PXTempHome() {
    std::string pattern = (std::filesystem::temp_directory_path() / "pxkit-home-XXXXXX").string();
    if (!mkdtemp(pattern.data())) throw std::runtime_error("cannot make a temporary home under " + pattern);
    root_ = pattern;
    for (const auto& [name, dir] : {std::pair{"HOME", "/home"},
                                    {"XDG_CONFIG_HOME", "/home/.config"},
                                    {"XDG_DATA_HOME", "/home/.local/share"},
                                    {"XDG_STATE_HOME", "/home/.local/state"},
                                    {"XDG_CACHE_HOME", "/home/.cache"},
                                    {"XDG_RUNTIME_DIR", "/run"},
                                    {"XDG_DATA_DIRS", "/usr/share"},
                                    {"XDG_CONFIG_DIRS", "/etc/xdg"}}) {
      setVariable(name, makeDirectory(root_ + dir));
    }
    chmod(runtimeDir().c_str(), 0700);
  }
  ~PXTempHome() {
    for (auto it = saved_.rbegin(); it != saved_.rend(); ++it)
      it->second ? setenv(it->first.c_str(), it->second->c_str(), 1) : unsetenv(it->first.c_str());
    std::error_code ignored;
    std::filesystem::remove_all(root_, ignored);
  }
  PXTempHome(const PXTempHome&) = delete;
  PXTempHome& operator=(const PXTempHome&) = delete;

  const std::string& root() const noexcept { return root_; }
  std::string configHome() const { return root_ + "/home/.config"; }
  std::string dataHome() const { return root_ + "/home/.local/share"; }
  std::string runtimeDir() const { return root_ + "/run"; }
  std::string systemDataDir() const { return root_ + "/usr/share"; }
  std::string systemConfigDir() const { return root_ + "/etc/xdg"; }

  // Writes `contents` to `path` (absolute, or relative to root()), making the directories on the
  // way; returns the absolute path. Throws std::runtime_error when it cannot.
  std::string writeFile(const std::string& path, std::string_view contents) const {
    const std::string full = absolute(path);
    std::filesystem::create_directories(std::filesystem::path(full).parent_path());
    std::ofstream out(full, std::ios::binary | std::ios::trunc);
    out.write(contents.data(), static_cast<std::streamsize>(contents.size()));
    if (!out) throw std::runtime_error("cannot write " + full);
    return full;
  }
  // Makes a directory and its parents; returns its absolute path.
  std::string makeDirectory(const std::string& path) const {
    std::filesystem::create_directories(absolute(path));
    return absolute(path);
  }
  // Sets an environment variable until this home is destroyed.
  void setVariable(const char* name, const std::string& value) {
    const char* old = getenv(name);
    saved_.emplace_back(name, old ? std::optional<std::string>(old) : std::nullopt);
    setenv(name, value.c_str(), 1);
  }

 private:
  std::string absolute(const std::string& path) const {
    return path.starts_with('/') ? path : root_ + "/" + path;
  }

  std::string root_;
  std::vector<std::pair<std::string, std::optional<std::string>>> saved_;  // name, earlier value
};
