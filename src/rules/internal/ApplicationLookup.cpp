// Installed applications by desktop-file id or by name; see ApplicationLookup.h.
#include "rules/internal/ApplicationLookup.h"

#include <algorithm>
#include <cstring>

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
  const std::string fileName = std::string(identifier) + std::string(kDesktopSuffix);
  for (const std::string& dir : dataDirs) {
    const std::string path = dir + "/applications/" + fileName;
    // The first directory holding the id decides, even when that entry is Hidden.
    if (g_file_test(path.c_str(), G_FILE_TEST_IS_REGULAR))
      return loadApplication(path, std::string(identifier), dataDirs);
  }
  return std::nullopt;
}

std::optional<InstalledApplication> findApplicationNamed(std::string_view name,
                                                         const std::vector<std::string>& dataDirs) {
  if (name.empty()) return std::nullopt;
  std::vector<std::string> seen;
  for (const std::string& dir : dataDirs) {
    const std::string applications = dir + "/applications";
    glib::Handle<GDir, g_dir_close> listing(g_dir_open(applications.c_str(), 0, nullptr));
    if (!listing) continue;
    std::vector<std::string> names;
    while (const char* entry = g_dir_read_name(listing.get())) {
      std::string_view file(entry);
      if (file.size() > kDesktopSuffix.size() && file.ends_with(kDesktopSuffix)) names.emplace_back(file);
    }
    std::sort(names.begin(), names.end());
    for (const std::string& file : names) {
      std::string id = file.substr(0, file.size() - kDesktopSuffix.size());
      if (std::find(seen.begin(), seen.end(), id) != seen.end()) continue;
      seen.push_back(id);
      std::optional<InstalledApplication> app = loadApplication(applications + "/" + file, id, dataDirs);
      if (app && app->name == name) return app;
    }
  }
  return std::nullopt;
}

}  // namespace pxkit::rules
