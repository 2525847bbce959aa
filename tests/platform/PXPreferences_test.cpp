// Preference values by scope: the by-host store keyed by the machine id, the
// any-host store shared with the user defaults, the read-only system store, and
// other applications' values from their files.
#include <glib.h>
#include <gtest/gtest.h>
#include <pxkit/objects/PXArray.h>
#include <pxkit/objects/PXData.h>
#include <pxkit/objects/PXDictionary.h>
#include <pxkit/platform/PXBundle.h>
#include <pxkit/platform/PXPreferences.h>
#include <pxkit/platform/PXPropertyList.h>
#include <pxkit/platform/PXUserDefaults.h>

#include <string>
#include <vector>

#include "platform/internal/GLibHandles.h"
#include "platform/internal/VariantValue.h"
#include "support/PXLogCapture.h"
#include "support/PXTempHome.h"

namespace {

constexpr const char* kAppID = "org.pxkit.PrefsTest";
constexpr const char* kMachineID = "0123456789abcdef0123456789abcdef";
const char* const kUser = kPXPreferencesCurrentUser;

PXRef<PXDictionary> readPreferences(const std::string& path) {
  gchar* text = nullptr;
  gsize length = 0;
  if (!g_file_get_contents(path.c_str(), &text, &length, nullptr)) return {};
  PXValue v = PXPropertyList::propertyListWithString(std::string_view(text, length));
  g_free(text);
  return v.dictionaryValue();
}

std::string plist(std::initializer_list<PXDictionary::Entry> entries) {
  return PXPropertyList::XMLStringWithPropertyList(PXValue(PXDictionary::dictionaryWithEntries(entries)));
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

}  // namespace

TEST_F(PXPreferencesTest, HostKeyIsTheMachineIdsHmacOverTheApplicationId) {
  // HMAC-SHA256 with the machine id as key over the application id, computed
  // independently (Python's hmac module).
  const std::string key = "894c3beb655fd7a8cd51fc1e8563f5846f1bef24626e53ebba2d885add01917e";
  EXPECT_EQ(PXPreferences::hostKey(kAppID), key);
  // The by-host values live in a file of their own named by it.
  EXPECT_EQ(PXPreferences::filePath(kPXPreferencesCurrentApplication, kUser, kPXPreferencesCurrentHost),
            appDirectory() + "/" + kAppID + "." + key + ".plist");
  EXPECT_EQ(PXPreferences::hostKey("org.pxkit.Other"),
            "1d22628119fd27348217b61cbe30ba9dd7bbdf19e2689a21abc3be9d658bd002");
  home.writeFile(machineIDPath, "  fedcba9876543210fedcba9876543210\n\n");  // blanks around it do not count
  EXPECT_EQ(PXPreferences::hostKey(kAppID),
            "8f37509718e20636d48fef3a17f4330b0519e5a805a32d6f92b9653fe45ac031");

  // Without a readable machine id (or with an empty one), the host name stands in.
  pxkit::glib::String byHostName(g_compute_hmac_for_string(G_CHECKSUM_SHA256,
                                                           reinterpret_cast<const guchar*>(g_get_host_name()),
                                                           strlen(g_get_host_name()), kAppID, -1));
  home.writeFile(machineIDPath, " \n");
  EXPECT_EQ(PXPreferences::hostKey(kAppID), byHostName.get());
  g_setenv("PXKIT_MACHINE_ID_PATH", (home.root() + "/no-such-file").c_str(), TRUE);
  EXPECT_EQ(PXPreferences::hostKey(kAppID), byHostName.get());
}

TEST_F(PXPreferencesTest, AnyHostValuesAreTheUserDefaultsAndOtherScopesAreReadOnly) {
  PXUserDefaults* defaults = PXUserDefaults::standardUserDefaults();
  defaults->setObject("from defaults", "Shared");
  EXPECT_EQ(PXPreferences::copyValue("Shared", kPXPreferencesCurrentApplication, kUser, kPXPreferencesAnyHost)
                .stringValue(),
            "from defaults");
  ASSERT_TRUE(PXPreferences::setValue("Shared", "set", kAppID, g_get_user_name(), kPXPreferencesAnyHost));
  EXPECT_EQ(defaults->stringForKey("Shared"), "set");
  ASSERT_TRUE(PXPreferences::synchronize(kAppID, kUser, kPXPreferencesAnyHost));
  EXPECT_EQ(readPreferences(defaults->filePath())->objectForKey("Shared").stringValue(), "set");
  // Registered defaults belong to the defaults object only, not to the stored preferences.
  defaults->registerDefaults(*PXDictionary::dictionaryWithEntries({{"OnlyRegistered", 1}}));
  EXPECT_FALSE(PXPreferences::copyValue("OnlyRegistered", kAppID, kUser, kPXPreferencesAnyHost));

  home.writeFile(home.systemConfigDir() + "/" + kAppID + "/" + kAppID + ".plist",
                 plist({{"SiteWide", "from the administrator"}}));
  EXPECT_EQ(PXPreferences::copyValue("SiteWide", kAppID, kPXPreferencesAnyUser, kPXPreferencesAnyHost)
                .stringValue(),
            "from the administrator");
  struct Row {
    const char* app;
    const char* user;
    const char* host;
  } rows[] = {
      {kAppID, kPXPreferencesAnyUser, kPXPreferencesAnyHost},
      {kAppID, kPXPreferencesAnyUser, kPXPreferencesCurrentHost},
      {kAppID, "someone-else", kPXPreferencesAnyHost},
      {kAppID, kUser, "elsewhere"},
      {"../escape", kUser, kPXPreferencesAnyHost},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(std::string(row.app) + " " + row.user + " " + row.host);
    EXPECT_FALSE(PXPreferences::setValue("k", 1, row.app, row.user, row.host));
    PXErrorRef error;
    EXPECT_FALSE(PXPreferences::synchronize(row.app, row.user, row.host, &error));
    EXPECT_TRUE(error);
  }
  EXPECT_EQ(PXPreferences::filePath("../escape", kUser, kPXPreferencesAnyHost), "");
  // Values that are not property lists are refused in every scope.
  EXPECT_FALSE(PXPreferences::setValue("k", PXValue::null(), kAppID, kUser, kPXPreferencesCurrentHost));
}

TEST_F(PXPreferencesTest, AnotherApplicationsValuesComeFromItsFileAfreshAndBadFilesAreLogged) {
  PXLogCapture log;
  const std::string path = appDirectory("org.pxkit.Editor") + "/org.pxkit.Editor.plist";
  EXPECT_FALSE(PXPreferences::copyAppValue("LastUsed", "org.pxkit.Editor"));
  for (double when : {10.0, 20.0}) {
    home.writeFile(path, plist({{"LastUsed", PXDate(when)}}));
    EXPECT_TRUE(PXPreferences::copyAppValue("LastUsed", "org.pxkit.Editor").isEqual(PXDate(when)));
  }
  home.writeFile(path, "not a property list");
  EXPECT_FALSE(PXPreferences::copyAppValue("LastUsed", "org.pxkit.Editor"));
  const std::string viewer = appDirectory("org.pxkit.Viewer") + "/org.pxkit.Viewer.plist";
  home.makeDirectory(viewer);  // a directory where the file should be
  EXPECT_FALSE(PXPreferences::copyAppValue("LastUsed", "org.pxkit.Viewer"));
  // The host's own values as this process sees them, not yet written ones included.
  PXUserDefaults::standardUserDefaults()->setObject("pending", "Own");
  EXPECT_EQ(PXPreferences::copyAppValue("Own", kAppID).stringValue(), "pending");
  // An unreadable machine id: the host name stands in.
  home.makeDirectory("machine-id-dir");
  g_setenv("PXKIT_MACHINE_ID_PATH", (home.root() + "/machine-id-dir").c_str(), TRUE);
  EXPECT_FALSE(PXPreferences::hostKey(kAppID).empty());
  EXPECT_EQ(log.lines(PXLogLevel::Warning),
            (std::vector<std::string>{"PXPreferences: " + path + " holds no property-list dictionary",
                                      "PXPreferences: cannot read " + viewer + ": Is a directory",
                                      "PXPreferences: machine id unread: cannot read " + home.root() +
                                          "/machine-id-dir: Is a directory"}));
}

// ---- GVariant -> value (shared with the system-bus watchers) ----------------------------

TEST(PXVariantValue, EachKindReadsAsTheMatchingValue) {
  auto bytes = [](std::string_view text) { return PXValue(PXData::dataWithString(text)); };
  auto array = [](std::initializer_list<PXValue> items) { return PXValue(PXArray::arrayWithObjects(items)); };
  auto dict = [](std::initializer_list<PXDictionary::Entry> entries) {
    return PXValue(PXDictionary::dictionaryWithEntries(entries));
  };
  struct Row {
    const char* text;  // GVariant text format, parsed with g_variant_parse
    PXValue expected;  // of the same kind: a bool, a signed and an unsigned integer differ
  } rows[] = {
      {"true", true},
      {"byte 0xff", 255},
      {"int16 -32768", -32768},
      {"uint16 65535", 65535},
      {"int32 -2147483648", -2147483648LL},
      {"uint32 4294967295", 4294967295LL},
      {"int64 -9223372036854775808", static_cast<long long>(INT64_MIN)},
      {"uint64 18446744073709551615", static_cast<unsigned long long>(UINT64_MAX)},
      {"handle 3", 3},
      {"2.5", 2.5},
      {"'ünïcode'", "ünïcode"},
      {"objectpath '/org/a'", "/org/a"},
      {"signature 'a{sv}'", "a{sv}"},
      {"[byte 0x72, 0x61, 0x77, 0x01]", bytes(std::string_view("raw\x01", 4))},
      {"b'raw'", bytes(std::string_view("raw\0", 4))},  // a bytestring literal ends in its NUL
      {"@as []", array({})},
      {"('state', uint32 4, 87.5)", array({"state", 4, 87.5})},
      {"{1: <'one'>, 2: <@ms nothing>}", dict({{"1", "one"}})},  // keys as text, absent items dropped
      {"{'State': <uint32 2>}", dict({{"State", 2}})},
      {"<<just 'doubly wrapped'>>", "doubly wrapped"},
      {"@ms nothing", PXValue()},
      {"[just 1, nothing, just 3]", array({1, 3})},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.text);
    pxkit::glib::Error error;
    pxkit::glib::Variant variant(
        g_variant_parse(nullptr, row.text, nullptr, nullptr, pxkit::glib::out(error)));
    ASSERT_TRUE(variant) << (error ? error->message : "");
    PXValue got = pxkit::internal::valueOfVariant(variant.get());
    EXPECT_EQ(got.kind(), row.expected.kind());
    EXPECT_TRUE(got.isEqual(row.expected)) << got.description().str();
  }
  EXPECT_TRUE(pxkit::internal::valueOfVariant(nullptr).isAbsent());
  // Nesting: 64 levels in are read, deeper ones are cut off (absent), no crash.
  for (int depth : {64, 65}) {
    std::string text = "'core'";
    for (int i = 0; i < depth; ++i) text = "<" + text + ">";
    pxkit::glib::Variant variant(g_variant_parse(nullptr, text.c_str(), nullptr, nullptr, nullptr));
    ASSERT_TRUE(variant);
    EXPECT_EQ(pxkit::internal::valueOfVariant(variant.get()).isAbsent(), depth > 64) << depth;
  }
}
