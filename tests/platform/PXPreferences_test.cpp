// Preference values by scope: the by-host store keyed by the machine id, the
// any-host store shared with the user defaults, the read-only system store, and
// other applications' values (their files, or their GSettings schema).
#include <glib.h>
#include <gtest/gtest.h>
#include <pxkit/platform/PXBundle.h>
#include <pxkit/platform/PXPreferences.h>
#include <pxkit/platform/PXPropertyList.h>
#include <pxkit/platform/PXUserDefaults.h>

#include <string>
#include <vector>

#include "support/PXSubprocess.h"
#include "support/PXTempHome.h"

#ifndef PXKIT_PREFS_CHILD
#error "PXKIT_PREFS_CHILD names the helper process"
#endif

namespace {

constexpr const char* kAppID = "org.pxkit.PrefsTest";
constexpr const char* kMachineID = "0123456789abcdef0123456789abcdef";
// HMAC-SHA256 with the machine id as key over the application id, computed
// independently (Python's hmac module).
constexpr const char* kHostKey = "894c3beb655fd7a8cd51fc1e8563f5846f1bef24626e53ebba2d885add01917e";
constexpr const char* kOtherMachineHostKey =
    "8f37509718e20636d48fef3a17f4330b0519e5a805a32d6f92b9653fe45ac031";
constexpr const char* kOtherAppHostKey = "1d22628119fd27348217b61cbe30ba9dd7bbdf19e2689a21abc3be9d658bd002";

PXRef<PXDictionary> readPreferences(const std::string& path) {
  gchar* text = nullptr;
  gsize length = 0;
  if (!g_file_get_contents(path.c_str(), &text, &length, nullptr)) return {};
  PXValue v = PXPropertyList::propertyListWithString(std::string_view(text, length));
  g_free(text);
  return v.dictionaryValue();
}

std::string hmacHex(const std::string& key, const std::string& message) {
  gchar* hex = g_compute_hmac_for_string(G_CHECKSUM_SHA256, reinterpret_cast<const guchar*>(key.data()),
                                         key.size(), message.c_str(), -1);
  std::string result(hex);
  g_free(hex);
  return result;
}

class PXPreferencesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    machineIDPath = home.writeFile("machine-id", std::string(kMachineID) + "\n");
    g_setenv("PXKIT_MACHINE_ID_PATH", machineIDPath.c_str(), TRUE);
    ASSERT_TRUE(PXBundle::setMainBundleIdentity(kAppID));
  }
  void TearDown() override { g_unsetenv("PXKIT_MACHINE_ID_PATH"); }

  std::string appDirectory(const std::string& id = kAppID) const { return home.configHome() + "/" + id; }

  PXTempHome home;  // first: before any GLib call
  std::string machineIDPath;
};

PXValue currentHostValue(std::string_view key) {
  return PXPreferences::copyValue(key, kPXPreferencesCurrentApplication, kPXPreferencesCurrentUser,
                                  kPXPreferencesCurrentHost);
}

}  // namespace

TEST_F(PXPreferencesTest, HostKeyIsTheMachineIdsHmacOverTheApplicationId) {
  EXPECT_EQ(PXPreferences::hostKey(kAppID), kHostKey);
  EXPECT_EQ(PXPreferences::hostKey("org.pxkit.Other"), kOtherAppHostKey);
  home.writeFile(machineIDPath, "  fedcba9876543210fedcba9876543210\n\n");  // blanks around it do not count
  EXPECT_EQ(PXPreferences::hostKey(kAppID), kOtherMachineHostKey);

  // Without a readable machine id (or with an empty one), the host name stands in.
  const std::string byHostName = hmacHex(g_get_host_name(), kAppID);
  home.writeFile(machineIDPath, " \n");
  EXPECT_EQ(PXPreferences::hostKey(kAppID), byHostName);
  g_setenv("PXKIT_MACHINE_ID_PATH", (home.root() + "/no-such-file").c_str(), TRUE);
  EXPECT_EQ(PXPreferences::hostKey(kAppID), byHostName);
}

TEST_F(PXPreferencesTest, ByHostValuesLiveInTheirOwnFileNamedByTheHostKey) {
  EXPECT_FALSE(currentHostValue("MetricsRandomSystemID"));
  ASSERT_TRUE(PXPreferences::setValue("MetricsRandomSystemID", "6F9619FF-8B86-D011-B42D-00C04FC964FF",
                                      kPXPreferencesCurrentApplication, kPXPreferencesCurrentUser,
                                      kPXPreferencesCurrentHost));
  EXPECT_EQ(currentHostValue("MetricsRandomSystemID").stringValue(), "6F9619FF-8B86-D011-B42D-00C04FC964FF");
  PXErrorRef error;
  ASSERT_TRUE(PXPreferences::synchronize(kPXPreferencesCurrentApplication, kPXPreferencesCurrentUser,
                                         kPXPreferencesCurrentHost, &error));

  const std::string byHostPath = appDirectory() + "/" + kAppID + "." + kHostKey + ".plist";
  EXPECT_EQ(PXPreferences::filePath(kPXPreferencesCurrentApplication, kPXPreferencesCurrentUser,
                                    kPXPreferencesCurrentHost),
            byHostPath);
  PXRef<PXDictionary> onDisk = readPreferences(byHostPath);
  ASSERT_TRUE(onDisk);
  EXPECT_EQ(onDisk->objectForKey("MetricsRandomSystemID").stringValue(),
            "6F9619FF-8B86-D011-B42D-00C04FC964FF");
  // Not among the values for any host, and the machine id itself is nowhere on disk.
  EXPECT_FALSE(PXUserDefaults::standardUserDefaults()->objectForKey("MetricsRandomSystemID"));
  EXPECT_FALSE(PXPreferences::copyValue("MetricsRandomSystemID", kAppID, kPXPreferencesCurrentUser,
                                        kPXPreferencesAnyHost));
  GDir* dir = g_dir_open(appDirectory().c_str(), 0, nullptr);
  ASSERT_TRUE(dir);
  while (const char* name = g_dir_read_name(dir))
    EXPECT_EQ(std::string(name).find(kMachineID), std::string::npos);
  g_dir_close(dir);

  // Another machine (the preferences carried over to it) does not see the value.
  home.writeFile(machineIDPath, "fedcba9876543210fedcba9876543210\n");
  EXPECT_FALSE(currentHostValue("MetricsRandomSystemID"));

  // Deleting it works like any other value.
  home.writeFile(machineIDPath, std::string(kMachineID) + "\n");
  ASSERT_TRUE(PXPreferences::setValue("MetricsRandomSystemID", PXValue(), kAppID, kPXPreferencesCurrentUser,
                                      kPXPreferencesCurrentHost));
  EXPECT_FALSE(currentHostValue("MetricsRandomSystemID"));
  ASSERT_TRUE(PXPreferences::synchronize(kAppID, kPXPreferencesCurrentUser, kPXPreferencesCurrentHost));
  EXPECT_FALSE(readPreferences(byHostPath)->objectForKey("MetricsRandomSystemID"));
}

TEST_F(PXPreferencesTest, ByHostValuesWrittenByAnotherProcessArriveAtSynchronize) {
  ASSERT_TRUE(
      PXPreferences::setValue("Mine", "kept", kAppID, kPXPreferencesCurrentUser, kPXPreferencesCurrentHost));
  ASSERT_EQ(
      PXSubprocess::run({PXKIT_PREFS_CHILD, "byhost-set", kAppID, "Theirs", "written elsewhere"}).exitStatus,
      0);
  ASSERT_TRUE(PXPreferences::synchronize(kAppID, kPXPreferencesCurrentUser, kPXPreferencesCurrentHost));
  EXPECT_EQ(currentHostValue("Theirs").stringValue(), "written elsewhere");
  EXPECT_EQ(currentHostValue("Mine").stringValue(), "kept");
  PXRef<PXDictionary> onDisk = readPreferences(appDirectory() + "/" + kAppID + "." + kHostKey + ".plist");
  ASSERT_TRUE(onDisk);
  EXPECT_EQ(onDisk->count(), 2u);
}

TEST_F(PXPreferencesTest, AnyHostValuesAreTheUserDefaults) {
  PXUserDefaults* defaults = PXUserDefaults::standardUserDefaults();
  defaults->setObject("from defaults", "Shared");
  EXPECT_EQ(PXPreferences::copyValue("Shared", kPXPreferencesCurrentApplication, kPXPreferencesCurrentUser,
                                     kPXPreferencesAnyHost)
                .stringValue(),
            "from defaults");
  ASSERT_TRUE(PXPreferences::setValue("Shared", "from preferences", kAppID, kPXPreferencesCurrentUser,
                                      kPXPreferencesAnyHost));
  EXPECT_EQ(defaults->stringForKey("Shared"), "from preferences");
  ASSERT_TRUE(PXPreferences::synchronize(kAppID, kPXPreferencesCurrentUser, kPXPreferencesAnyHost));
  EXPECT_EQ(readPreferences(defaults->filePath())->objectForKey("Shared").stringValue(), "from preferences");
  // Registered defaults belong to the defaults object only, not to the stored preferences.
  defaults->registerDefaults(*PXDictionary::dictionaryWithEntries({{"OnlyRegistered", 1}}));
  EXPECT_FALSE(
      PXPreferences::copyValue("OnlyRegistered", kAppID, kPXPreferencesCurrentUser, kPXPreferencesAnyHost));
}

TEST_F(PXPreferencesTest, ScopesThatCannotBeWrittenAreRefused) {
  home.writeFile(home.systemConfigDir() + "/" + kAppID + "/" + kAppID + ".plist",
                 PXPropertyList::XMLStringWithPropertyList(
                     PXValue(PXDictionary::dictionaryWithEntries({{"SiteWide", "from the administrator"}}))));
  EXPECT_EQ(PXPreferences::copyValue("SiteWide", kAppID, kPXPreferencesAnyUser, kPXPreferencesAnyHost)
                .stringValue(),
            "from the administrator");
  struct Row {
    const char* name;
    const char* app;
    const char* user;
    const char* host;
  } rows[] = {
      {"any user", kAppID, kPXPreferencesAnyUser, kPXPreferencesAnyHost},
      {"any user, this host", kAppID, kPXPreferencesAnyUser, kPXPreferencesCurrentHost},
      {"another user", kAppID, "someone-else", kPXPreferencesAnyHost},
      {"an unknown host scope", kAppID, kPXPreferencesCurrentUser, "elsewhere"},
      {"an application id that cannot be a file name", "../escape", kPXPreferencesCurrentUser,
       kPXPreferencesAnyHost},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_FALSE(PXPreferences::setValue("k", 1, row.app, row.user, row.host));
    PXErrorRef error;
    EXPECT_FALSE(PXPreferences::synchronize(row.app, row.user, row.host, &error));
    EXPECT_TRUE(error);
  }
  EXPECT_EQ(PXPreferences::filePath("../escape", kPXPreferencesCurrentUser, kPXPreferencesAnyHost), "");
  // Values that are not property lists are refused in every scope.
  EXPECT_FALSE(PXPreferences::setValue("k", PXValue::null(), kAppID, kPXPreferencesCurrentUser,
                                       kPXPreferencesCurrentHost));
}

TEST_F(PXPreferencesTest, AnotherApplicationsValuesComeFromItsFileAfresh) {
  const std::string path = appDirectory("org.pxkit.Editor") + "/org.pxkit.Editor.plist";
  EXPECT_FALSE(PXPreferences::copyAppValue("LastUsed", "org.pxkit.Editor"));
  home.writeFile(path, PXPropertyList::XMLStringWithPropertyList(
                           PXValue(PXDictionary::dictionaryWithEntries({{"LastUsed", PXDate(10)}}))));
  EXPECT_TRUE(PXPreferences::copyAppValue("LastUsed", "org.pxkit.Editor").isEqual(PXDate(10)));
  home.writeFile(path, PXPropertyList::XMLStringWithPropertyList(
                           PXValue(PXDictionary::dictionaryWithEntries({{"LastUsed", PXDate(20)}}))));
  EXPECT_TRUE(PXPreferences::copyAppValue("LastUsed", "org.pxkit.Editor").isEqual(PXDate(20)));
  home.writeFile(path, "not a property list");
  EXPECT_FALSE(PXPreferences::copyAppValue("LastUsed", "org.pxkit.Editor"));
  // The host's own values as this process sees them, not yet written ones included.
  PXUserDefaults::standardUserDefaults()->setObject("pending", "Own");
  EXPECT_EQ(PXPreferences::copyAppValue("Own", kAppID).stringValue(), "pending");
}

TEST_F(PXPreferencesTest, AnotherApplicationsGSettingsAreReadWhenItKeepsNoFile) {
  const std::string schemas = home.makeDirectory("schemas");
  home.writeFile(schemas + "/org.pxkit.Gadget.gschema.xml", R"(<schemalist>
  <schema id="org.pxkit.Gadget" path="/org/pxkit/Gadget/">
    <key name="volume" type="i"><default>7</default></key>
    <key name="theme" type="s"><default>'dark'</default></key>
    <key name="enabled" type="b"><default>true</default></key>
    <key name="recent" type="as"><default>['a', 'b']</default></key>
    <key name="sizes" type="a{si}"><default>{'small': 1}</default></key>
  </schema>
</schemalist>)");
  gchar* compiler = g_find_program_in_path("glib-compile-schemas");
  if (!compiler) GTEST_SKIP() << "glib-compile-schemas is not installed";
  const std::string compilerPath = compiler;
  g_free(compiler);
  ASSERT_EQ(PXSubprocess::run({compilerPath, schemas}).exitStatus, 0);
  g_setenv("GSETTINGS_SCHEMA_DIR", schemas.c_str(), TRUE);
  g_setenv("GSETTINGS_BACKEND", "memory", TRUE);

  EXPECT_TRUE(PXPreferences::copyAppValue("volume", "org.pxkit.Gadget").isEqual(7));
  EXPECT_EQ(PXPreferences::copyAppValue("theme", "org.pxkit.Gadget").stringValue(), "dark");
  EXPECT_TRUE(PXPreferences::copyAppValue("enabled", "org.pxkit.Gadget").isEqual(true));
  EXPECT_TRUE(PXPreferences::copyAppValue("recent", "org.pxkit.Gadget")
                  .isEqual(PXValue(PXArray::arrayWithObjects({"a", "b"}))));
  EXPECT_TRUE(PXPreferences::copyAppValue("sizes", "org.pxkit.Gadget")
                  .isEqual(PXValue(PXDictionary::dictionaryWithEntries({{"small", 1}}))));
  EXPECT_FALSE(PXPreferences::copyAppValue("no-such-key", "org.pxkit.Gadget"));
  EXPECT_FALSE(PXPreferences::copyAppValue("volume", "org.pxkit.NoSchema"));
  // A file of its own wins over the schema.
  home.writeFile(appDirectory("org.pxkit.Gadget") + "/org.pxkit.Gadget.plist",
                 PXPropertyList::XMLStringWithPropertyList(
                     PXValue(PXDictionary::dictionaryWithEntries({{"volume", 3}}))));
  EXPECT_TRUE(PXPreferences::copyAppValue("volume", "org.pxkit.Gadget").isEqual(3));
}
