#include <pxkit/platform/PXBundle.h>
#include <pxkit/platform/PXStringComparison.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "platform/internal/BundleIdentity.h"
#include "platform/internal/GLibHandles.h"

const char* const kPXBundleIdentifierKey = "CFBundleIdentifier";
const char* const kPXBundleShortVersionStringKey = "CFBundleShortVersionString";
const char* const kPXBundleVersionKey = "CFBundleVersion";
const char* const kPXBundleNameKey = "CFBundleName";
const char* const kPXBundleExecutableKey = "CFBundleExecutable";

namespace pxkit::internal {

namespace {

constexpr const char* kDesktopGroup = "Desktop Entry";

std::string env(const char* name) {
  const char* value = std::getenv(name);
  return value ? value : "";
}

bool hasSuffix(std::string_view text, std::string_view suffix) {
  return text.size() >= suffix.size() && text.substr(text.size() - suffix.size()) == suffix;
}

std::string withoutSuffix(std::string_view text, std::string_view suffix) {
  return std::string(hasSuffix(text, suffix) ? text.substr(0, text.size() - suffix.size()) : text);
}

std::string keyFileString(GKeyFile* file, const char* key) {
  glib::String value(g_key_file_get_string(file, kDesktopGroup, key, nullptr));
  return value ? value.get() : "";
}

// A desktop file that is a real application entry; null when it is not
// (unreadable, no [Desktop Entry] group, or Hidden: deleted by the user).
glib::KeyFile loadDesktopFile(const std::string& path) {
  glib::KeyFile file(g_key_file_new());
  if (!g_key_file_load_from_file(file.get(), path.c_str(), G_KEY_FILE_NONE, nullptr)) return nullptr;
  if (!g_key_file_has_group(file.get(), kDesktopGroup)) return nullptr;
  if (g_key_file_get_boolean(file.get(), kDesktopGroup, "Hidden", nullptr)) return nullptr;
  return file;
}

// The program an Exec line starts: its first word's base name, past an "env"
// with its assignments.
std::string execProgram(const std::string& exec) {
  glib::Strv argv;
  if (exec.empty() || !g_shell_parse_argv(exec.c_str(), nullptr, glib::out(argv), nullptr)) return "";
  gchar** word = argv.get();
  auto baseName = [](const char* path) {
    glib::String base(g_path_get_basename(path));
    return std::string(base.get());
  };
  if (*word && baseName(*word) == "env") {
    ++word;
    while (*word && std::strchr(*word, '=')) ++word;
  }
  return *word ? baseName(*word) : "";
}

// ---- AppStream metainfo ------------------------------------------------------
struct ReleaseCollector {
  int depth = 0;  // element depth
  bool inFirstComponent = false;
  bool componentSeen = false;
  bool inReleases = false;
  std::optional<std::string> newestStable, newestDevelopment;

  static void offer(std::optional<std::string>& best, const char* version) {
    if (!best || PXCompareReleaseVersions(version, *best) > 0) best = version;
  }
};

void onStartElement(GMarkupParseContext*, const gchar* element, const gchar** names, const gchar** values,
                    gpointer data, GError**) {
  auto* c = static_cast<ReleaseCollector*>(data);
  ++c->depth;
  if (std::strcmp(element, "component") == 0 && !c->componentSeen && c->depth <= 2) {
    c->componentSeen = true;
    c->inFirstComponent = true;
    return;
  }
  if (!c->inFirstComponent) return;
  if (std::strcmp(element, "releases") == 0) {
    c->inReleases = true;
  } else if (c->inReleases && std::strcmp(element, "release") == 0) {
    const char* version = nullptr;
    const char* type = nullptr;
    for (int i = 0; names[i]; ++i) {
      if (std::strcmp(names[i], "version") == 0) version = values[i];
      if (std::strcmp(names[i], "type") == 0) type = values[i];
    }
    if (!version || !*version) return;
    ReleaseCollector::offer(
        type && std::strcmp(type, "development") == 0 ? c->newestDevelopment : c->newestStable, version);
  }
}

void onEndElement(GMarkupParseContext*, const gchar* element, gpointer data, GError**) {
  auto* c = static_cast<ReleaseCollector*>(data);
  --c->depth;
  if (std::strcmp(element, "releases") == 0) c->inReleases = false;
  if (std::strcmp(element, "component") == 0 && c->inFirstComponent) c->inFirstComponent = false;
}

}  // namespace

BundleIdentitySources currentBundleIdentitySources() {
  BundleIdentitySources sources;
  if (GApplication* app = g_application_get_default()) {
    if (const char* id = g_application_get_application_id(app)) sources.applicationId = id;
  }
  sources.flatpakId = env("FLATPAK_ID");
  sources.snapName = env("SNAP_NAME");
  sources.snapVersion = env("SNAP_VERSION");
  sources.snapRevision = env("SNAP_REVISION");
  if (const char* program = g_get_prgname()) sources.programName = program;
  sources.dataDirs.emplace_back(g_get_user_data_dir());
  for (const char* const* dir = g_get_system_data_dirs(); *dir; ++dir) sources.dataDirs.emplace_back(*dir);
  return sources;
}

std::optional<DesktopEntry> findDesktopEntry(std::string_view id, const std::vector<std::string>& dataDirs) {
  if (id.empty() || id.find('/') != std::string_view::npos) return std::nullopt;
  const std::string fileName = std::string(id) + ".desktop";
  for (const std::string& dir : dataDirs) {
    const std::string path = dir + "/applications/" + fileName;
    if (!g_file_test(path.c_str(), G_FILE_TEST_IS_REGULAR)) continue;
    // The first directory holding the id decides, even when that file is Hidden.
    glib::KeyFile file = loadDesktopFile(path);
    if (!file) return std::nullopt;
    return DesktopEntry{std::string(id), keyFileString(file.get(), "Name")};
  }
  return std::nullopt;
}

std::optional<DesktopEntry> findDesktopEntryForProgram(std::string_view program,
                                                       const std::vector<std::string>& dataDirs) {
  if (program.empty()) return std::nullopt;
  std::vector<std::string> seen;  // ids shadowed by an earlier directory
  for (const std::string& dir : dataDirs) {
    const std::string applications = dir + "/applications";
    glib::Handle<GDir, g_dir_close> listing(g_dir_open(applications.c_str(), 0, nullptr));
    if (!listing) continue;
    std::vector<std::string> names;
    while (const char* name = g_dir_read_name(listing.get())) {
      if (hasSuffix(name, ".desktop")) names.emplace_back(name);
    }
    std::sort(names.begin(), names.end());
    for (const std::string& name : names) {
      std::string id = withoutSuffix(name, ".desktop");
      if (std::find(seen.begin(), seen.end(), id) != seen.end()) continue;
      seen.push_back(id);
      glib::KeyFile file = loadDesktopFile(applications + "/" + name);
      if (!file) continue;
      if (keyFileString(file.get(), "StartupWMClass") == program ||
          execProgram(keyFileString(file.get(), "Exec")) == program)
        return DesktopEntry{std::move(id), keyFileString(file.get(), "Name")};
    }
  }
  return std::nullopt;
}

std::optional<std::string> newestReleaseVersion(std::string_view xml) {
  static const GMarkupParser parser = {onStartElement, onEndElement, nullptr, nullptr, nullptr};
  ReleaseCollector collector;
  glib::Handle<GMarkupParseContext, g_markup_parse_context_free> context(
      g_markup_parse_context_new(&parser, G_MARKUP_IGNORE_QUALIFIED, &collector, nullptr));
  if (!g_markup_parse_context_parse(context.get(), xml.data(), static_cast<gssize>(xml.size()), nullptr) ||
      !g_markup_parse_context_end_parse(context.get(), nullptr))
    return std::nullopt;
  return collector.newestStable ? collector.newestStable : collector.newestDevelopment;
}

std::optional<std::string> metainfoVersion(std::string_view id, const std::vector<std::string>& dataDirs) {
  if (id.empty() || id.find('/') != std::string_view::npos) return std::nullopt;
  const std::string stem(id);
  const std::string candidates[] = {"/metainfo/" + stem + ".metainfo.xml",
                                    "/metainfo/" + stem + ".appdata.xml",
                                    "/appdata/" + stem + ".appdata.xml"};
  for (const std::string& dir : dataDirs) {
    for (const std::string& candidate : candidates) {
      glib::String text;
      gsize length = 0;
      if (!g_file_get_contents((dir + candidate).c_str(), glib::out(text), &length, nullptr)) continue;
      // The first file found is the application's metainfo, with or without a version.
      return newestReleaseVersion(std::string_view(text.get(), length));
    }
  }
  return std::nullopt;
}

std::vector<std::string> languageTagsFromLocaleNames(const std::vector<std::string>& names) {
  std::vector<std::string> tags;
  for (const std::string& name : names) {
    std::string_view locale = name;
    std::string_view modifier;
    if (const size_t at = locale.find('@'); at != std::string_view::npos) {
      modifier = locale.substr(at + 1);
      locale = locale.substr(0, at);
    }
    if (const size_t dot = locale.find('.'); dot != std::string_view::npos) locale = locale.substr(0, dot);
    if (locale.empty() || locale == "C" || locale == "POSIX") continue;
    std::string tag(locale);
    std::replace(tag.begin(), tag.end(), '_', '-');
    // The script modifiers that name a script; the others (euro, ...) say nothing of the language.
    if (modifier == "latin")
      tag.insert(tag.find('-') == std::string::npos ? tag.size() : tag.find('-'), "-Latn");
    if (modifier == "cyrillic")
      tag.insert(tag.find('-') == std::string::npos ? tag.size() : tag.find('-'), "-Cyrl");
    if (std::find(tags.begin(), tags.end(), tag) == tags.end()) tags.push_back(std::move(tag));
  }
  return tags;
}

BundleIdentity resolveBundleIdentity(const BundleIdentitySources& sources) {
  BundleIdentity identity;
  std::string candidate;
  bool fromProgram = false;
  bool inSnap = false;
  if (!sources.explicitIdentifier.empty()) {
    candidate = sources.explicitIdentifier;
  } else if (!sources.applicationId.empty()) {
    candidate = sources.applicationId;
  } else if (!sources.flatpakId.empty()) {
    candidate = sources.flatpakId;
  } else if (!sources.snapName.empty()) {
    candidate = sources.snapName;
    inSnap = true;
  } else if (!sources.programName.empty()) {
    candidate = sources.programName;
    fromProgram = true;
  }
  if (candidate.empty()) return identity;

  // Desktop files name ids with or without the ".desktop" many people append to app ids.
  candidate = withoutSuffix(candidate, ".desktop");
  std::optional<DesktopEntry> entry = findDesktopEntry(candidate, sources.dataDirs);
  if (!entry && inSnap) entry = findDesktopEntry(candidate + "_" + candidate, sources.dataDirs);
  if (!entry && fromProgram) entry = findDesktopEntryForProgram(candidate, sources.dataDirs);

  // A program name is only a guess: the desktop file it leads to names the application.
  identity.identifier = fromProgram && entry ? entry->id : candidate;
  identity.desktopId = entry ? entry->id : "";
  identity.name = entry && !entry->name.empty()
                      ? entry->name
                      : (sources.programName.empty() ? candidate : sources.programName);

  identity.shortVersion = sources.explicitIdentifier.empty() ? "" : sources.explicitShortVersion;
  identity.version = sources.explicitIdentifier.empty() ? "" : sources.explicitVersion;
  if (inSnap) {
    if (identity.shortVersion.empty()) identity.shortVersion = sources.snapVersion;
    if (identity.version.empty()) identity.version = sources.snapRevision;
  }
  if (identity.shortVersion.empty() || identity.version.empty()) {
    std::optional<std::string> version = metainfoVersion(entry ? entry->id : candidate, sources.dataDirs);
    if (version) {
      if (identity.shortVersion.empty()) identity.shortVersion = *version;
      if (identity.version.empty()) identity.version = *version;
    }
  }
  return identity;
}

}  // namespace pxkit::internal

// ---- The main bundle --------------------------------------------------------------

namespace {

struct MainBundleState {
  std::mutex mutex;
  std::string identifier, shortVersion, version;  // from setMainBundleIdentity
  PXRef<PXDictionary> info;                       // resolved on first use
};

MainBundleState& state() {
  static auto* s = new MainBundleState;  // lives until the process ends
  return *s;
}

std::string executablePathText() {
  pxkit::glib::String path(g_file_read_link("/proc/self/exe", nullptr));
  return path ? path.get() : "";
}

PXRef<PXDictionary> makeInfo(const MainBundleState& s) {
  pxkit::internal::BundleIdentitySources sources = pxkit::internal::currentBundleIdentitySources();
  sources.explicitIdentifier = s.identifier;
  sources.explicitShortVersion = s.shortVersion;
  sources.explicitVersion = s.version;
  const pxkit::internal::BundleIdentity identity = pxkit::internal::resolveBundleIdentity(sources);
  std::vector<PXDictionary::Entry> entries;
  auto add = [&](const char* key, const std::string& value) {
    if (!value.empty()) entries.emplace_back(PXValue(key), PXValue(value));
  };
  add(kPXBundleIdentifierKey, identity.identifier);
  add(kPXBundleShortVersionStringKey, identity.shortVersion);
  add(kPXBundleVersionKey, identity.version);
  add(kPXBundleNameKey, identity.name);
  const std::string executable = executablePathText();
  if (!executable.empty()) {
    pxkit::glib::String base(g_path_get_basename(executable.c_str()));
    add(kPXBundleExecutableKey, base.get());
  }
  return PXDictionary::dictionaryWithEntries(std::move(entries));
}

}  // namespace

PX_DEFINE_CLASS(PXBundle, PXObject, [](PXClassBuilder<PXBundle>& c) {
  c.computed("bundleIdentifier", &PXBundle::bundleIdentifier);
  c.computed("bundlePath", &PXBundle::bundlePath);
  c.computed("infoDictionary", &PXBundle::infoDictionary);
})

PXBundle* PXBundle::mainBundle() {
  static PXBundle* bundle = new PXBundle;  // never released
  return bundle;
}

bool PXBundle::setMainBundleIdentity(PXString identifier, PXString shortVersion, PXString version) {
  if (identifier.empty()) return false;
  MainBundleState& s = state();
  std::lock_guard lock(s.mutex);
  s.identifier = identifier.str();
  s.shortVersion = shortVersion.str();
  s.version = version.str();
  s.info = nullptr;  // resolved again on next use
  return true;
}

PXRef<PXDictionary> PXBundle::infoDictionary() const {
  MainBundleState& s = state();
  std::lock_guard lock(s.mutex);
  if (!s.info) s.info = makeInfo(s);
  return s.info;
}

PXValue PXBundle::objectForInfoDictionaryKey(const PXValue& key) const {
  return infoDictionary()->objectForKey(key);
}

PXString PXBundle::bundleIdentifier() const {
  return objectForInfoDictionaryKey(kPXBundleIdentifierKey).stringObject();
}

PXString PXBundle::executablePath() const {
  std::string path = executablePathText();
  return path.empty() ? PXString() : PXString(path);
}

PXString PXBundle::bundlePath() const {
  std::string path = executablePathText();
  if (path.empty()) return {};
  pxkit::glib::String dir(g_path_get_dirname(path.c_str()));
  return PXString(dir.get());
}

PXRef<PXArray> PXBundle::preferredLocalizations() const {
  std::vector<std::string> names;
  for (const char* const* name = g_get_language_names(); *name; ++name) names.emplace_back(*name);
  std::vector<PXValue> values;
  for (std::string& tag : pxkit::internal::languageTagsFromLocaleNames(names)) values.emplace_back(tag);
  if (values.empty()) values.emplace_back("en");
  return PXArray::arrayWithValues(std::move(values));
}
