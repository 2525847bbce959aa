// How the host application's identity is found: the pure part of PXBundle.
//
// resolveBundleIdentity() takes everything the process can say about itself
// (the host's explicit call, the default GApplication's id, the Flatpak and
// Snap variables, the program name) and the XDG data directories, and gives
// the identifier, versions and name in the documented order of precedence.
// The lookups read desktop files and AppStream metainfo from the directories
// given, nothing else, so tests hand in a fixture tree.
//
// Thread safety: pure functions; currentBundleIdentitySources() reads process
// state that GLib guards.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace pxkit::internal {

// What the process says about itself. Empty strings are "not known".
struct BundleIdentitySources {
  std::string explicitIdentifier, explicitShortVersion, explicitVersion;  // setMainBundleIdentity
  std::string applicationId;                                              // the default GApplication's id
  std::string flatpakId;                                                  // FLATPAK_ID
  std::string snapName, snapVersion, snapRevision;  // SNAP_NAME, SNAP_VERSION, SNAP_REVISION
  std::string programName;                          // g_get_prgname()
  std::vector<std::string> dataDirs;                // XDG_DATA_HOME first, then XDG_DATA_DIRS, in order
};

// The result. Empty strings are absent pieces.
struct BundleIdentity {
  std::string identifier, shortVersion, version, name;
  std::string desktopId;  // the desktop file found for it (without ".desktop"), or empty
};

// The sources of the running process (without the explicit identity).
BundleIdentitySources currentBundleIdentitySources();

BundleIdentity resolveBundleIdentity(const BundleIdentitySources& sources);

// ---- Pieces, for tests and for other application lookups ---------------------------
struct DesktopEntry {
  std::string id;    // the desktop-file id without ".desktop"
  std::string name;  // its (unlocalised) Name
};
// The desktop file `<id>.desktop` under `<dir>/applications/`, the first data
// directory holding it winning; a file marked Hidden counts as absent.
std::optional<DesktopEntry> findDesktopEntry(std::string_view id, const std::vector<std::string>& dataDirs);
// The first desktop file whose StartupWMClass or Exec program is `program`
// (by data-directory order, then by file name).
std::optional<DesktopEntry> findDesktopEntryForProgram(std::string_view program,
                                                       const std::vector<std::string>& dataDirs);
// The newest release version in the AppStream metainfo of desktop id `id`:
// metainfo/<id>.metainfo.xml, metainfo/<id>.appdata.xml, appdata/<id>.appdata.xml
// in the data directories, the first found.
std::optional<std::string> metainfoVersion(std::string_view id, const std::vector<std::string>& dataDirs);
// The newest version among the <release> elements of the first <component> in
// `xml` (ordered by PXCompareReleaseVersions): stable releases first (a release of type "development" counts
// only when there is no other). Absent when there is none or the text is not XML.
std::optional<std::string> newestReleaseVersion(std::string_view xml);
// BCP 47 tags from locale names as GLib lists them ("de_DE.UTF-8" → "de-DE",
// "sr@latin" → "sr-Latn"): codesets and other modifiers dropped, "C" and
// "POSIX" skipped, duplicates removed, order kept.
std::vector<std::string> languageTagsFromLocaleNames(const std::vector<std::string>& names);

}  // namespace pxkit::internal
