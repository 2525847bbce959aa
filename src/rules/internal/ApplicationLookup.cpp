// Installed applications by desktop-file id or by name; see ApplicationLookup.h.
#include "rules/internal/ApplicationLookup.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <utility>

#include "platform/internal/BundleIdentity.h"
#include "platform/internal/GLibHandles.h"

namespace pxkit::rules {

namespace {

constexpr const char* kDesktopGroup = "Desktop Entry";
constexpr std::string_view kDesktopSuffix = ".desktop";

std::string keyFileString(GKeyFile* file, const char* key) {
  glib::String value(g_key_file_get_string(file, kDesktopGroup, key, nullptr));
  return value ? value.get() : "";
}

// The directory of the program an Exec (or TryExec) line starts, past an
// "env" with its assignments; empty when it cannot be found.
std::string programDirectory(const std::string& commandLine) {
  glib::Strv argv;
  if (commandLine.empty() || !g_shell_parse_argv(commandLine.c_str(), nullptr, glib::out(argv), nullptr))
    return "";
  gchar** word = argv.get();
  if (*word && std::strcmp(*word, "env") == 0) {
    ++word;
    while (*word && std::strchr(*word, '=')) ++word;
  }
  if (!*word) return "";
  glib::String program(g_find_program_in_path(*word));
  if (!program) return "";
  glib::String directory(g_path_get_dirname(program.get()));
  return directory.get();
}

// The entry at `path` when it is a real, visible-to-lookup application entry.
std::optional<InstalledApplication> loadApplication(const std::string& path, std::string identifier,
                                                    const std::vector<std::string>& dataDirs) {
  glib::KeyFile file(g_key_file_new());
  if (!g_key_file_load_from_file(file.get(), path.c_str(), G_KEY_FILE_NONE, nullptr)) return std::nullopt;
  if (!g_key_file_has_group(file.get(), kDesktopGroup)) return std::nullopt;
  if (g_key_file_get_boolean(file.get(), kDesktopGroup, "Hidden", nullptr)) return std::nullopt;
  InstalledApplication app;
  app.name = keyFileString(file.get(), "Name");
  std::string tryExec = keyFileString(file.get(), "TryExec");
  app.path = programDirectory(tryExec.empty() ? keyFileString(file.get(), "Exec") : tryExec);
  app.version = internal::metainfoVersion(identifier, dataDirs).value_or("");
  app.identifier = std::move(identifier);
  return app;
}

// Vendor subdirectories nest no deeper than this (applications/a/b/c/x.desktop).
constexpr int kMaxVendorDepth = 4;

// The desktop file of `identifier` below the applications directory `dir`:
// <dir>/<id>.desktop, else a vendor subdirectory standing for a prefix of
// the id up to a "-" (the id "kde-org.example.Foo" is also
// <dir>/kde/org.example.Foo.desktop).
std::optional<std::string> desktopFileForIdentifier(const std::string& dir, std::string_view identifier,
                                                    int depth = 0) {
  const std::string path = dir + "/" + std::string(identifier) + std::string(kDesktopSuffix);
  if (g_file_test(path.c_str(), G_FILE_TEST_IS_REGULAR)) return path;
  if (depth >= kMaxVendorDepth) return std::nullopt;
  for (size_t dash = identifier.find('-'); dash != std::string_view::npos;
       dash = identifier.find('-', dash + 1)) {
    const std::string vendor = dir + "/" + std::string(identifier.substr(0, dash));
    if (dash == 0 || !g_file_test(vendor.c_str(), G_FILE_TEST_IS_DIR)) continue;
    if (std::optional<std::string> found =
            desktopFileForIdentifier(vendor, identifier.substr(dash + 1), depth + 1))
      return found;
  }
  return std::nullopt;
}

// The desktop files below `dir` as (id, path), sorted by file name within a
// directory, files before subdirectories; a subdirectory's name and "-" prefix
// the ids of its files.
std::vector<std::pair<std::string, std::string>> desktopFilesBelow(const std::string& dir,
                                                                   const std::string& prefix, int depth) {
  std::vector<std::pair<std::string, std::string>> files;
  glib::Handle<GDir, g_dir_close> listing(g_dir_open(dir.c_str(), 0, nullptr));
  if (!listing) return files;
  std::vector<std::string> names, subdirectories;
  while (const char* entry = g_dir_read_name(listing.get())) {
    std::string_view file(entry);
    const std::string path = dir + "/" + entry;
    if (file.size() > kDesktopSuffix.size() && file.ends_with(kDesktopSuffix)) {
      names.emplace_back(file);
    } else if (depth < kMaxVendorDepth && g_file_test(path.c_str(), G_FILE_TEST_IS_DIR)) {
      subdirectories.emplace_back(file);
    }
  }
  std::sort(names.begin(), names.end());
  std::sort(subdirectories.begin(), subdirectories.end());
  for (const std::string& file : names)
    files.emplace_back(prefix + file.substr(0, file.size() - kDesktopSuffix.size()), dir + "/" + file);
  for (const std::string& sub : subdirectories) {
    auto below = desktopFilesBelow(dir + "/" + sub, prefix + sub + "-", depth + 1);
    files.insert(files.end(), std::make_move_iterator(below.begin()), std::make_move_iterator(below.end()));
  }
  return files;
}

}  // namespace

std::vector<std::string> applicationDataDirs() {
  std::vector<std::string> dirs;
  dirs.emplace_back(g_get_user_data_dir());
  for (const char* const* dir = g_get_system_data_dirs(); *dir; ++dir) dirs.emplace_back(*dir);
  return dirs;
}

std::optional<InstalledApplication> findApplicationWithIdentifier(std::string_view identifier,
                                                                  const std::vector<std::string>& dataDirs) {
  if (identifier.empty() || identifier.find('/') != std::string_view::npos) return std::nullopt;
  for (const std::string& dir : dataDirs) {
    // The first directory holding the id decides, even when that entry is Hidden.
    if (std::optional<std::string> path = desktopFileForIdentifier(dir + "/applications", identifier))
      return loadApplication(*path, std::string(identifier), dataDirs);
  }
  return std::nullopt;
}

std::optional<InstalledApplication> findApplicationNamed(std::string_view name,
                                                         const std::vector<std::string>& dataDirs) {
  if (name.empty()) return std::nullopt;
  std::vector<std::string> seen;
  for (const std::string& dir : dataDirs) {
    for (const auto& [id, path] : desktopFilesBelow(dir + "/applications", "", 0)) {
      if (std::find(seen.begin(), seen.end(), id) != seen.end()) continue;
      seen.push_back(id);
      std::optional<InstalledApplication> app = loadApplication(path, id, dataDirs);
      if (app && app->name == name) return app;
    }
  }
  return std::nullopt;
}

}  // namespace pxkit::rules
