// A throw-away home directory for one test: HOME and the XDG base
// directories point into a fresh temporary tree for the fixture's lifetime.
//
//   TEST(PXUserDefaults, WritesUnderConfigHome) {
//     PXTempHome home;                               // first thing: before any GLib call
//     home.writeFile(home.dataHome() + "/applications/org.example.App.desktop", "[Desktop Entry]\n...");
//     ...                                            // g_get_user_config_dir() == home.configHome()
//   }
//
// GLib reads HOME and the XDG variables once per process and keeps them, so
// the fixture must be made before the first GLib call of the process; every
// test case runs in a process of its own (pxkit_add_test), which makes that
// easy. XDG_DATA_DIRS and XDG_CONFIG_DIRS point into the tree too, so that no
// desktop file or setting of the machine leaks into a test.
//
// Layout under root():
//   home/                 HOME
//   home/.config/         XDG_CONFIG_HOME
//   home/.local/share/    XDG_DATA_HOME
//   home/.local/state/    XDG_STATE_HOME
//   home/.cache/          XDG_CACHE_HOME
//   run/                  XDG_RUNTIME_DIR (mode 0700)
//   usr/share/            XDG_DATA_DIRS (the only entry)
//   etc/xdg/              XDG_CONFIG_DIRS (the only entry)
//
// The destructor restores the variables and removes the tree.
#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

class PXTempHome {
 public:
  PXTempHome();
  ~PXTempHome();
  PXTempHome(const PXTempHome&) = delete;
  PXTempHome& operator=(const PXTempHome&) = delete;

  const std::string& root() const noexcept { return root_; }
  std::string home() const { return root_ + "/home"; }
  std::string configHome() const { return root_ + "/home/.config"; }
  std::string dataHome() const { return root_ + "/home/.local/share"; }
  std::string runtimeDir() const { return root_ + "/run"; }
  std::string systemDataDir() const { return root_ + "/usr/share"; }
  std::string systemConfigDir() const { return root_ + "/etc/xdg"; }

  // Writes `contents` to `path` (absolute, or relative to root()), making the
  // directories on the way. Returns the absolute path; throws
  // std::runtime_error when the file cannot be written.
  std::string writeFile(const std::string& path, std::string_view contents) const;
  // Makes a directory (and its parents); returns its absolute path.
  std::string makeDirectory(const std::string& path) const;
  // Sets an environment variable until this home is destroyed, which puts
  // back the earlier value (or its absence).
  void setVariable(const char* name, const std::string& value);

 private:
  std::string absolute(const std::string& path) const;

  std::string root_;
  std::vector<std::pair<std::string, std::pair<bool, std::string>>> saved_;  // name, (was set, value)
};
