#include <gtest/gtest.h>
#include <pxkit/platform/PXBundle.h>
#include <pxkit/platform/PXStringComparison.h>
#include <stdlib.h>

#include <optional>
#include <string>
#include <vector>

#include "platform/internal/BundleIdentity.h"
#include "support/PXTempHome.h"

using pxkit::internal::BundleIdentity;
using pxkit::internal::BundleIdentitySources;

namespace {

std::string desktopFile(const std::string& name, const std::string& exec, const std::string& extra = {}) {
  return "[Desktop Entry]\nType=Application\nVersion=1.5\nName=" + name + "\nExec=" + exec + "\n" + extra;
}

std::string metainfo(const std::string& id, const std::string& releases) {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<component type=\"desktop-application\">\n  <id>" + id +
         "</id>\n  <releases>\n" + releases + "  </releases>\n</component>\n";
}

// A data-directory tree: one user directory and two system ones.
class BundleFixture : public ::testing::Test {
 protected:
  void SetUp() override {
    userData_ = home_.dataHome();
    systemData_ = home_.systemDataDir();
    otherSystemData_ = home_.makeDirectory("opt/share");

    // An application known by its id, with metainfo.
    home_.writeFile(systemData_ + "/applications/org.example.Editor.desktop",
                    desktopFile("Example Editor", "editor %F", "StartupWMClass=example-editor\n"));
    home_.writeFile(systemData_ + "/metainfo/org.example.Editor.metainfo.xml",
                    metainfo("org.example.Editor",
                             "    <release version=\"2.4.1\" date=\"2024-05-01\"/>\n"
                             "    <release version=\"2.10.0\" date=\"2025-02-01\"/>\n"
                             "    <release version=\"3.0~beta1\" type=\"development\"/>\n"
                             "    <release version=\"2.9\"/>\n"));
    // One found by the program its Exec line starts.
    home_.writeFile(systemData_ + "/applications/org.example.Viewer.desktop",
                    desktopFile("Viewer", "env LC_ALL=C /opt/viewer/bin/viewer --new-window %U"));
    home_.writeFile(otherSystemData_ + "/appdata/org.example.Viewer.appdata.xml",
                    metainfo("org.example.Viewer.desktop", "    <release version=\"0.9.2\"/>\n"));
    // A Flatpak-style app and a Snap.
    home_.writeFile(systemData_ + "/applications/com.example.Flat.desktop", desktopFile("Flat", "flat"));
    home_.writeFile(systemData_ + "/metainfo/com.example.Flat.metainfo.xml",
                    metainfo("com.example.Flat", "    <release version=\"5.0\"/>\n"));
    home_.writeFile(systemData_ + "/applications/snappy_snappy.desktop", desktopFile("Snappy", "snappy"));
    // The user hid a system application: its program no longer names it.
    home_.writeFile(systemData_ + "/applications/org.example.Hidden.desktop",
                    desktopFile("Hidden", "hidden"));
    home_.writeFile(userData_ + "/applications/org.example.Hidden.desktop", "[Desktop Entry]\nHidden=true\n");
  }

  BundleIdentitySources sources() const {
    BundleIdentitySources s;
    s.dataDirs = {userData_, systemData_, otherSystemData_};
    return s;
  }

  PXTempHome home_;
  std::string userData_, systemData_, otherSystemData_;
};

}  // namespace

TEST_F(BundleFixture, IdentityPrecedence) {
  struct Row {
    const char* what;
    std::function<void(BundleIdentitySources&)> set;
    BundleIdentity expected;  // identifier, short version, version, name, desktop id
  };
  auto everything = [](BundleIdentitySources& s) {
    s.applicationId = "com.example.Flat";
    s.flatpakId = "com.example.Flat";
    s.snapName = "snappy";
    s.snapVersion = "7.1";
    s.snapRevision = "42";
    s.programName = "editor";
  };
  const Row rows[] = {
      {"the host's call beats everything",
       [&](BundleIdentitySources& s) {
         everything(s);
         s.explicitIdentifier = "org.example.Editor";
         s.explicitShortVersion = "2.4";
         s.explicitVersion = "2400";
       },
       {"org.example.Editor", "2.4", "2400", "Example Editor", "org.example.Editor"}},
      {"the host's id without versions: metainfo's newest stable release",
       [](BundleIdentitySources& s) { s.explicitIdentifier = "org.example.Editor"; },
       {"org.example.Editor", "2.10.0", "2.10.0", "Example Editor", "org.example.Editor"}},
      {"the host's id with only a short version: the other from metainfo",
       [](BundleIdentitySources& s) {
         s.explicitIdentifier = "org.example.Editor";
         s.explicitShortVersion = "2.4";
       },
       {"org.example.Editor", "2.4", "2.10.0", "Example Editor", "org.example.Editor"}},
      {"the host's id, nothing installed: versions absent",
       [](BundleIdentitySources& s) {
         s.explicitIdentifier = "org.example.Unknown";
         s.programName = "editor";
       },
       {"org.example.Unknown", "", "", "editor", ""}},
      {"GApplication id beats Flatpak, Snap and program",
       [&](BundleIdentitySources& s) {
         everything(s);
         s.applicationId = "org.example.Editor";
       },
       {"org.example.Editor", "2.10.0", "2.10.0", "Example Editor", "org.example.Editor"}},
      {"FLATPAK_ID beats Snap and program",
       [&](BundleIdentitySources& s) {
         everything(s);
         s.applicationId.clear();
       },
       {"com.example.Flat", "5.0", "5.0", "Flat", "com.example.Flat"}},
      {"SNAP_NAME with the Snap's version and revision",
       [&](BundleIdentitySources& s) {
         everything(s);
         s.applicationId.clear();
         s.flatpakId.clear();
       },
       {"snappy", "7.1", "42", "Snappy", "snappy_snappy"}},
      {"program name matched by StartupWMClass",
       [](BundleIdentitySources& s) { s.programName = "example-editor"; },
       {"org.example.Editor", "2.10.0", "2.10.0", "Example Editor", "org.example.Editor"}},
      {"program name matched by Exec past env, metainfo in a later directory's appdata",
       [](BundleIdentitySources& s) { s.programName = "viewer"; },
       {"org.example.Viewer", "0.9.2", "0.9.2", "Viewer", "org.example.Viewer"}},
      {"program name that is itself a desktop id",
       [](BundleIdentitySources& s) { s.programName = "org.example.Editor"; },
       {"org.example.Editor", "2.10.0", "2.10.0", "Example Editor", "org.example.Editor"}},
      {"program name of an application the user hid",
       [](BundleIdentitySources& s) { s.programName = "hidden"; },
       {"hidden", "", "", "hidden", ""}},
      {"an id given with a .desktop suffix",
       [](BundleIdentitySources& s) { s.applicationId = "org.example.Editor.desktop"; },
       {"org.example.Editor", "2.10.0", "2.10.0", "Example Editor", "org.example.Editor"}},
      {"nothing known at all", [](BundleIdentitySources&) {}, {"", "", "", "", ""}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    BundleIdentitySources s = sources();
    row.set(s);
    const BundleIdentity got = pxkit::internal::resolveBundleIdentity(s);
    EXPECT_EQ(got.identifier, row.expected.identifier);
    EXPECT_EQ(got.shortVersion, row.expected.shortVersion);
    EXPECT_EQ(got.version, row.expected.version);
    EXPECT_EQ(got.name, row.expected.name);
    EXPECT_EQ(got.desktopId, row.expected.desktopId);
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
    const char* what;
    std::string xml;
    std::optional<std::string> newest;
  };
  const Row rows[] = {
      {"listed oldest first", metainfo("a", "<release version=\"1.2\"/><release version=\"1.10\"/>"), "1.10"},
      {"development ignored while stable exist",
       metainfo("a", "<release version=\"1.2\"/><release version=\"2.0~alpha\" type=\"development\"/>"),
       "1.2"},
      {"only development releases", metainfo("a", "<release version=\"0.1\" type=\"development\"/>"), "0.1"},
      {"explicitly stable", metainfo("a", "<release version=\"4\" type=\"stable\"/><release version=\"3\"/>"),
       "4"},
      {"release without a version", metainfo("a", "<release date=\"2020-01-01\"/>"), std::nullopt},
      {"no releases", metainfo("a", ""), std::nullopt},
      {"releases outside <releases> do not count",
       "<component><release version=\"9\"/><releases><release version=\"1\"/></releases></component>", "1"},
      {"only the first component",
       "<components><component><releases><release version=\"1\"/></releases></component>"
       "<component><releases><release version=\"7\"/></releases></component></components>",
       "1"},
      {"not XML", "<component><releases><release version=\"1\"", std::nullopt},
      {"empty text", "", std::nullopt},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    EXPECT_EQ(pxkit::internal::newestReleaseVersion(row.xml), row.newest);
  }
}

TEST(PXBundleLanguages, TagsFromLocaleNames) {
  struct Row {
    std::vector<std::string> names;
    std::vector<std::string> tags;
  };
  const Row rows[] = {
      {{"de_DE.UTF-8", "de_DE", "de.UTF-8", "de", "C"}, {"de-DE", "de"}},
      {{"en_US.ISO-8859-1@euro", "fr", "C"}, {"en-US", "fr"}},
      {{"sr_RS@latin", "sr_RS", "sr@latin", "sr"}, {"sr-Latn-RS", "sr-RS", "sr-Latn", "sr"}},
      {{"uz_UZ@cyrillic"}, {"uz-Cyrl-UZ"}},
      {{"C.UTF-8", "C", "POSIX"}, {}},
      {{"pt_BR", "pt_BR", "pt"}, {"pt-BR", "pt"}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.names.front());
    EXPECT_EQ(pxkit::internal::languageTagsFromLocaleNames(row.names), row.tags);
  }
}

// ---- The main bundle, through the process's own environment ------------------------

namespace {
std::vector<std::string> strings(const PXRef<PXArray>& array) {
  std::vector<std::string> out;
  for (size_t i = 0; i < array->count(); ++i) out.emplace_back(array->objectAtIndex(i).stringValue());
  return out;
}
}  // namespace

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
  EXPECT_EQ(bundle->objectForInfoDictionaryKey(kPXBundleVersionKey), PXValue("3.1"));
  EXPECT_EQ(bundle->objectForInfoDictionaryKey(kPXBundleNameKey), PXValue("Flat"));
  EXPECT_TRUE(bundle->objectForInfoDictionaryKey("NoSuchKey").isAbsent());

  // The executable is this test program.
  ASSERT_TRUE(bundle->executablePath());
  const std::string executable = bundle->executablePath().str();
  EXPECT_EQ(bundle->bundlePath().str() + "/" +
                std::string(bundle->objectForInfoDictionaryKey(kPXBundleExecutableKey).stringValue()),
            executable);
  EXPECT_EQ(executable.substr(executable.rfind('/') + 1), "pxkit_test_platform_bundle");

  EXPECT_FALSE(PXBundle::setMainBundleIdentity(""));
  EXPECT_FALSE(PXBundle::setMainBundleIdentity(PXString()));
  EXPECT_EQ(bundle->bundleIdentifier(), "org.example.Flat");

  ASSERT_TRUE(PXBundle::setMainBundleIdentity("org.example.Host", "1.2", "120"));
  EXPECT_EQ(bundle->bundleIdentifier(), "org.example.Host");
  PXRef<PXDictionary> info = bundle->infoDictionary();
  EXPECT_EQ(info->objectForKey("CFBundleIdentifier"), PXValue("org.example.Host"));
  EXPECT_EQ(info->objectForKey("CFBundleShortVersionString"), PXValue("1.2"));
  EXPECT_EQ(info->objectForKey("CFBundleVersion"), PXValue("120"));
}

TEST(PXBundle, PreferredLocalizationsFollowTheLocaleVariables) {
  setenv("LANGUAGE", "de_AT:fr", 1);
  setenv("LANG", "en_US.UTF-8", 1);
  unsetenv("LC_ALL");
  unsetenv("LC_MESSAGES");
  EXPECT_EQ(strings(PXBundle::mainBundle()->preferredLocalizations()),
            (std::vector<std::string>{"de-AT", "de", "fr"}));

  unsetenv("LANGUAGE");
  setenv("LC_ALL", "C", 1);
  EXPECT_EQ(strings(PXBundle::mainBundle()->preferredLocalizations()), (std::vector<std::string>{"en"}));
}
