// PXKit — the host application's identity.
//
// PXBundle::mainBundle() answers who the host application is: its identifier
// (a reverse-DNS application id such as "org.example.Editor"), its version
// strings, where it is installed and which languages the user prefers. The
// host states its identity with one call at start-up, before it uses the kit:
//
//   PXBundle::setMainBundleIdentity("org.example.Editor", "2.4.1", "2041");
//   PXString id = PXBundle::mainBundle()->bundleIdentifier();         // "org.example.Editor"
//   PXValue v = PXBundle::mainBundle()->objectForInfoDictionaryKey(
//       kPXBundleShortVersionStringKey);                               // "2.4.1"
//
// Without that call the identity is found, in this order:
//  1. the identifier: the default GApplication's id (GTK applications), then
//     FLATPAK_ID (inside a Flatpak), then SNAP_NAME (inside a Snap), then the
//     program name (g_get_prgname(), the executable's name by default);
//  2. the desktop file of that id (<id>.desktop in the XDG data directories;
//     for a bare program name also a desktop file whose StartupWMClass or
//     Exec names the program, whose id then becomes the identifier); its Name
//     is the bundle name;
//  3. the versions: the newest stable release in the AppStream metainfo of the
//     desktop id (metainfo/<id>.metainfo.xml or the older appdata names in the
//     XDG data directories) gives both version strings; inside a Snap,
//     SNAP_VERSION and SNAP_REVISION do. The desktop file's own "Version" key
//     is the version of the desktop-entry format and is never used.
// An identity piece that nothing provides is absent. The identity is looked up
// once, on first use, and kept.
//
// Thread safety: any thread. setMainBundleIdentity may come before or after
// the first mainBundle(); the bundle then answers with the new identity.
#pragma once

#include <pxkit/export.h>
#include <pxkit/objects/PXArray.h>
#include <pxkit/objects/PXDictionary.h>
#include <pxkit/objects/PXObject.h>
#include <pxkit/objects/PXString.h>

// Keys of the info dictionary.
PXKIT_EXPORT extern const char* const kPXBundleIdentifierKey;          // "CFBundleIdentifier"
PXKIT_EXPORT extern const char* const kPXBundleShortVersionStringKey;  // "CFBundleShortVersionString"
PXKIT_EXPORT extern const char* const kPXBundleVersionKey;             // "CFBundleVersion"
PXKIT_EXPORT extern const char* const kPXBundleNameKey;                // "CFBundleName"
PXKIT_EXPORT extern const char* const kPXBundleExecutableKey;          // "CFBundleExecutable"

class PXKIT_EXPORT PXBundle : public PXObject {
  PX_DECLARE_CLASS(PXBundle)

 public:
  // The host application's bundle. Never null; lives until the process ends.
  static PXBundle* mainBundle();

  // The host's statement of its identity. `identifier` must be present and not
  // empty (otherwise the call does nothing and returns false); an absent or
  // empty version is looked up for that identifier as described above.
  static bool setMainBundleIdentity(PXString identifier, PXString shortVersion = {}, PXString version = {});

  // The info dictionary: the keys above, those that are known. Immutable.
  PXRef<PXDictionary> infoDictionary() const;
  // The value of an info-dictionary key, or absent.
  PXValue objectForInfoDictionaryKey(const PXValue& key) const;
  // CFBundleIdentifier, or absent.
  PXString bundleIdentifier() const;

  // The directory that holds the running executable ("/usr/bin" for
  // /usr/bin/editor); absent when it cannot be found.
  PXString bundlePath() const;
  // The full path of the running executable, or absent.
  PXString executablePath() const;

  // The user's preferred languages as BCP 47 tags, most preferred first
  // ("de-DE", "de", ...), from LANGUAGE, LC_ALL, LC_MESSAGES and LANG; "en"
  // when the locale names none (C / POSIX). Never empty.
  PXRef<PXArray> preferredLocalizations() const;

 private:
  PXBundle() = default;
};
