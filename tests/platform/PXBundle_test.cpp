// The host application's identity: precedence of its sources, release
// versions from metainfo, language tags, and the main bundle of this process.
#include <gtest/gtest.h>
#include <pxkit/platform/PXBundle.h>
#include <pxkit/platform/PXStringComparison.h>
#include <stdlib.h>

#include <optional>
#include <string>
#include <vector>

#include "platform/internal/BundleIdentity.h"
#include "support/PXTempHome.h"

using pxkit::internal::BundleIdentitySources;

// The rows below name only the sources they set; the others stay empty on purpose.
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

namespace {

std::string desktopFile(const std::string& name, const std::string& exec, const std::string& extra = {}) {
  return "[Desktop Entry]\nType=Application\nVersion=1.5\nName=" + name + "\nExec=" + exec + "\n" + extra;
}

std::string metainfo(const std::string& id, const std::string& releases) {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<component type=\"desktop-application\">\n  <id>" + id +
         "</id>\n  <releases>\n" + releases + "  </releases>\n</component>\n";
}

}  // namespace

TEST(PXBundleIdentity, SourcesWinInTheirOrderOfPrecedence) {
  PXTempHome home;
  const std::string user = home.dataHome(), system = home.systemDataDir();
  const std::string other = home.makeDirectory("opt/share");
  // An application known by its id, with metainfo.
  home.writeFile(system + "/applications/org.example.Editor.desktop",
                 desktopFile("Example Editor", "editor %F", "StartupWMClass=example-editor\n"));
  home.writeFile(system + "/metainfo/org.example.Editor.metainfo.xml",
                 metainfo("org.example.Editor",
                          "<release version=\"2.4.1\"/><release version=\"2.10.0\"/>"
                          "<release version=\"3.0~beta1\" type=\"development\"/><release version=\"2.9\"/>"));
  // One found by the program its Exec line starts, its metainfo in a later directory.
  home.writeFile(system + "/applications/org.example.Viewer.desktop",
                 desktopFile("Viewer", "env LC_ALL=C /opt/viewer/bin/viewer --new-window %U"));
  home.writeFile(other + "/appdata/org.example.Viewer.appdata.xml",
                 metainfo("org.example.Viewer.desktop", "<release version=\"0.9.2\"/>"));
  home.writeFile(system + "/applications/com.example.Flat.desktop", desktopFile("Flat", "flat"));
  home.writeFile(system + "/metainfo/com.example.Flat.metainfo.xml",
                 metainfo("com.example.Flat", "<release version=\"5.0\"/>"));
  home.writeFile(system + "/applications/snappy_snappy.desktop", desktopFile("Snappy", "snappy"));
  // The user hid a system application: its program no longer names it.
  home.writeFile(system + "/applications/org.example.Hidden.desktop", desktopFile("Hidden", "hidden"));
  home.writeFile(user + "/applications/org.example.Hidden.desktop", "[Desktop Entry]\nHidden=true\n");

  const std::string editor = "org.example.Editor|2.10.0|2.10.0|Example Editor|org.example.Editor";
  struct Row {
    BundleIdentitySources sources;
    std::string expected;  // identifier|short version|version|name|desktop id
  } rows[] = {
      {{.explicitIdentifier = "org.example.Editor",
        .explicitShortVersion = "2.4",
        .explicitVersion = "2400",
        .applicationId = "com.example.Flat",
        .flatpakId = "com.example.Flat",
        .snapName = "snappy",
        .programName = "viewer"},
       "org.example.Editor|2.4|2400|Example Editor|org.example.Editor"},
      {{.explicitIdentifier = "org.example.Editor"}, editor},
      {{.explicitIdentifier = "org.example.Editor", .explicitShortVersion = "2.4"},
       "org.example.Editor|2.4|2.10.0|Example Editor|org.example.Editor"},
      {{.explicitIdentifier = "org.example.Unknown", .programName = "editor"},
       "org.example.Unknown|||editor|"},
      {{.applicationId = "org.example.Editor", .flatpakId = "com.example.Flat", .snapName = "snappy"},
       editor},
      {{.flatpakId = "com.example.Flat", .snapName = "snappy", .programName = "viewer"},
       "com.example.Flat|5.0|5.0|Flat|com.example.Flat"},
      {{.snapName = "snappy", .snapVersion = "7.1", .snapRevision = "42", .programName = "viewer"},
       "snappy|7.1|42|Snappy|snappy_snappy"},
      {{.programName = "example-editor"}, editor},  // by StartupWMClass
      {{.programName = "viewer"}, "org.example.Viewer|0.9.2|0.9.2|Viewer|org.example.Viewer"},
      {{.programName = "org.example.Editor"}, editor},  // a program named as a desktop id
      {{.programName = "hidden"}, "hidden|||hidden|"},
      {{.applicationId = "org.example.Editor.desktop"}, editor},
      {{}, "||||"},
  };
  for (Row& row : rows) {
    SCOPED_TRACE(row.expected);
    row.sources.dataDirs = {user, system, other};
    const auto got = pxkit::internal::resolveBundleIdentity(row.sources);
    EXPECT_EQ(
        got.identifier + "|" + got.shortVersion + "|" + got.version + "|" + got.name + "|" + got.desktopId,
        row.expected);
  }
}

TEST(PXBundleVersions, CompareReleaseVersions) {
  struct Row {
    const char* a;
    const char* b;
    int order;  // sign of compare(a, b)
  };
  const Row rows[] = {
      {"1.0", "1.0", 0},    {"1.10", "1.9", 1},   {"2.0", "10.0", -1},    {"1.0.1", "1.0", 1},
      {"1.0", "1.0.0", -1}, {"1.01", "1.1", 0},   {"1.0~rc1", "1.0", -1}, {"1.0~rc1", "1.0~rc2", -1},
      {"1.0a", "1.0", 1},   {"1.0a", "1.0b", -1}, {"1.0", "1.a", 1},      {"1.0-2", "1.0.2", 0},
      {"", "", 0},          {"", "0", -1},        {"20240101", "3.0", 1}, {"1.2.3", "1.2.3~", 1},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(std::string(row.a) + " vs " + row.b);
    const int forward = PXCompareReleaseVersions(row.a, row.b);
    const int backward = PXCompareReleaseVersions(row.b, row.a);
    EXPECT_EQ((forward > 0) - (forward < 0), row.order);
    EXPECT_EQ((backward > 0) - (backward < 0), -row.order);
  }
}

TEST(PXBundleVersions, NewestReleaseInMetainfo) {
  struct Row {
    std::string xml;
    std::optional<std::string> newest;
  };
  const Row rows[] = {
      {metainfo("a", "<release version=\"1.2\"/><release version=\"2.0~alpha\" type=\"development\"/>"),
       "1.2"},
      {metainfo("a", "<release version=\"0.1\" type=\"development\"/>"), "0.1"},
      {metainfo("a", "<release version=\"4\" type=\"stable\"/><release version=\"3\"/>"), "4"},
      {metainfo("a", "<release date=\"2020-01-01\"/>"), std::nullopt},
      {"<component><release version=\"9\"/><releases><release version=\"1\"/></releases></component>", "1"},
      {"<components><component><releases><release version=\"1\"/></releases></component>"
       "<component><releases><release version=\"7\"/></releases></component></components>",
       "1"},
      {"<component><releases><release version=\"1\"", std::nullopt},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.xml);
    EXPECT_EQ(pxkit::internal::newestReleaseVersion(row.xml), row.newest);
  }
}

// ---- The main bundle, through the process's own environment ------------------------

TEST(PXBundle, MainBundleFromFlatpakThenFromTheHostsCall) {
  PXTempHome home;  // before GLib looks at XDG_DATA_DIRS
  home.writeFile(home.systemDataDir() + "/applications/org.example.Flat.desktop",
                 desktopFile("Flat", "flat"));
  home.writeFile(home.systemDataDir() + "/metainfo/org.example.Flat.metainfo.xml",
                 metainfo("org.example.Flat", "<release version=\"3.1\"/>"));
  setenv("FLATPAK_ID", "org.example.Flat", 1);
  unsetenv("SNAP_NAME");

  PXBundle* bundle = PXBundle::mainBundle();
  EXPECT_EQ(bundle->bundleIdentifier(), "org.example.Flat");
  EXPECT_EQ(bundle->objectForInfoDictionaryKey(kPXBundleShortVersionStringKey), PXValue("3.1"));
  EXPECT_EQ(bundle->objectForInfoDictionaryKey(kPXBundleNameKey), PXValue("Flat"));
  EXPECT_TRUE(bundle->objectForInfoDictionaryKey("NoSuchKey").isAbsent());
  // The executable is this test program.
  EXPECT_EQ(bundle->executablePath().str(), bundle->bundlePath().str() + "/pxkit_test_platform_bundle");
  EXPECT_EQ(bundle->objectForInfoDictionaryKey(kPXBundleExecutableKey),
            PXValue("pxkit_test_platform_bundle"));

  EXPECT_FALSE(PXBundle::setMainBundleIdentity(""));
  EXPECT_FALSE(PXBundle::setMainBundleIdentity(PXString()));
  ASSERT_TRUE(PXBundle::setMainBundleIdentity("org.example.Host", "1.2", "120"));
  EXPECT_EQ(bundle->bundleIdentifier(), "org.example.Host");
  PXRef<PXDictionary> info = bundle->infoDictionary();
  EXPECT_EQ(info->objectForKey("CFBundleIdentifier"), PXValue("org.example.Host"));
  EXPECT_EQ(info->objectForKey("CFBundleShortVersionString"), PXValue("1.2"));
  EXPECT_EQ(info->objectForKey("CFBundleVersion"), PXValue("120"));
}

// BCP 47 tags from the locale variables: codesets and other modifiers dropped,
// scripts kept, "C" skipped, duplicates removed, order kept; "en" when nothing is left.
TEST(PXBundle, PreferredLocalizationsFollowTheLocaleVariables) {
  auto tags = [] {
    std::vector<std::string> out;
    PXRef<PXArray> array = PXBundle::mainBundle()->preferredLocalizations();
    for (size_t i = 0; i < array->count(); ++i) out.emplace_back(array->objectAtIndex(i).stringValue());
    return out;
  };
  setenv("LANGUAGE", "sr_RS@latin:uz_UZ@cyrillic:de_AT.UTF-8:en_US.ISO-8859-1@euro:de:POSIX", 1);
  setenv("LANG", "fr_FR.UTF-8", 1);
  unsetenv("LC_ALL");
  unsetenv("LC_MESSAGES");
  EXPECT_EQ(tags(), (std::vector<std::string>{"sr-Latn-RS", "sr-Latn", "sr-RS", "sr", "uz-Cyrl-UZ", "uz-Cyrl",
                                              "uz-UZ", "uz", "de-AT", "de", "en-US", "en"}));
  unsetenv("LANGUAGE");
  setenv("LC_ALL", "C.UTF-8", 1);
  EXPECT_EQ(tags(), (std::vector<std::string>{"en"}));
}
