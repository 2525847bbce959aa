// Preference values by scope: the by-host store keyed by the machine id, the
// any-host store shared with the user defaults, the read-only system store, and
// other applications' values (their files, or their GSettings schema).
#include <glib.h>
#include <gtest/gtest.h>
#include <pxkit/objects/PXArray.h>
#include <pxkit/objects/PXData.h>
#include <pxkit/objects/PXDictionary.h>
#include <pxkit/platform/PXBundle.h>
#include <pxkit/platform/PXPreferences.h>
#include <pxkit/platform/PXPropertyList.h>
#include <pxkit/platform/PXUserDefaults.h>

#include <algorithm>
#include <string>
#include <vector>

#include "platform/internal/GLibHandles.h"
#include "platform/internal/VariantValue.h"
#include "support/PXLogCapture.h"
#include "support/PXSubprocess.h"
#include "support/PXTempHome.h"

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

TEST_F(PXPreferencesTest, AnotherApplicationsValuesComeFromItsFileAfreshAndBadFilesAreLogged) {
  PXLogCapture log;
  const std::string path = appDirectory("org.pxkit.Editor") + "/org.pxkit.Editor.plist";
  EXPECT_FALSE(PXPreferences::copyAppValue("LastUsed", "org.pxkit.Editor"));
  for (double when : {10.0, 20.0}) {
    home.writeFile(path, PXPropertyList::XMLStringWithPropertyList(
                             PXValue(PXDictionary::dictionaryWithEntries({{"LastUsed", PXDate(when)}}))));
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

namespace {

// A value written with its kind, so that a bool, a signed and an unsigned
// integer of the same number differ: "b:1", "i:-5", "u:7", "d:2.5", "s:text",
// "x:0aff" (data), "[..., ...]", "{key=value, ...}" (keys sorted), "-" (absent).
std::string typed(const PXValue& v) {
  switch (v.kind()) {
    case PXValue::Kind::Absent:
      return "-";
    case PXValue::Kind::Bool:
      return std::string("b:") + (v.boolValue() ? "1" : "0");
    case PXValue::Kind::Int:
      return "i:" + std::to_string(v.longLongValue());
    case PXValue::Kind::UInt:
      return "u:" + std::to_string(v.unsignedLongLongValue());
    case PXValue::Kind::Double:
      return "d:" + v.description().str();
    case PXValue::Kind::String:
      return "s:" + std::string(v.stringValue());
    case PXValue::Kind::Data: {
      std::string hex = "x:";
      for (uint8_t byte : v.dataValue()->bytes()) {
        char two[3];
        snprintf(two, sizeof two, "%02x", byte);
        hex += two;
      }
      return hex;
    }
    default:
      break;
  }
  if (v.isDictionary()) {
    std::vector<std::string> entries;
    for (const auto& [key, value] : *v.dictionaryValue()) entries.push_back(typed(key) + "=" + typed(value));
    std::sort(entries.begin(), entries.end());
    std::string text = "{";
    for (size_t i = 0; i < entries.size(); ++i) text += (i ? ", " : "") + entries[i];
    return text + "}";
  }
  if (v.isArray()) {
    std::string text = "[";
    const PXRef<PXArray> array = v.arrayValue();
    for (size_t i = 0; i < array->count(); ++i) text += (i ? ", " : "") + typed((*array)[i]);
    return text + "]";
  }
  return "?" + v.className().str();
}

struct VariantCase {
  const char* text;  // GVariant text format, parsed with g_variant_parse
  const char* expected;
};

const VariantCase kVariantCases[] = {
    // Basic types
    {"true", "b:1"},
    {"false", "b:0"},
    {"byte 0xff", "i:255"},
    {"int16 -32768", "i:-32768"},
    {"uint16 65535", "i:65535"},
    {"int32 -2147483648", "i:-2147483648"},
    {"uint32 4294967295", "i:4294967295"},
    {"int64 -9223372036854775808", "i:-9223372036854775808"},
    {"uint64 18446744073709551615", "u:18446744073709551615"},
    {"handle 3", "i:3"},
    {"2.5", "d:2.5"},
    {"'text with ünïcode'", "s:text with ünïcode"},
    {"objectpath '/org/freedesktop/UPower/devices/battery_BAT0'",
     "s:/org/freedesktop/UPower/devices/battery_BAT0"},
    {"signature 'a{sv}'", "s:a{sv}"},
    // Containers
    {"[byte 0x72, 0x61, 0x77, 0x01]", "x:72617701"},
    {"b'raw'", "x:72617700"},  // a bytestring literal ends in its NUL
    {"@ay []", "x:"},
    {"[int32 1, 2, 3]", "[i:1, i:2, i:3]"},
    {"@as []", "[]"},
    {"('state', uint32 4, 87.5)", "[s:state, i:4, d:87.5]"},
    {"{'Percentage': <87.5>, 'State': <uint32 2>}", "{s:Percentage=d:87.5, s:State=i:2}"},
    {"{1: 'one', 2: 'two'}", "{s:1=s:one, s:2=s:two}"},  // keys written as text
    {"<<'doubly wrapped'>>", "s:doubly wrapped"},
    {"just 'something'", "s:something"},
    {"@ms nothing", "-"},
    {"[just 1, nothing, just 3]", "[i:1, i:3]"},  // absent items dropped
    {"{'gone': @mi nothing, 'kept': @mi 1}", "{s:kept=i:1}"},
    // Nested
    {"({'Devices': <[objectpath '/a', '/b']>}, [(true, [byte 1])])",
     "[{s:Devices=[s:/a, s:/b]}, [[b:1, x:01]]]"},
};

}  // namespace

TEST(PXVariantValue, EachKindReadsAsTheMatchingValue) {
  for (const VariantCase& c : kVariantCases) {
    SCOPED_TRACE(c.text);
    pxkit::glib::Error error;
    pxkit::glib::Variant variant(g_variant_parse(nullptr, c.text, nullptr, nullptr, pxkit::glib::out(error)));
    ASSERT_TRUE(variant) << (error ? error->message : "");
    EXPECT_EQ(typed(pxkit::internal::valueOfVariant(variant.get())), c.expected);
  }
  EXPECT_TRUE(pxkit::internal::valueOfVariant(nullptr).isAbsent());
}

TEST(PXVariantValue, NestingBeyondTheLimitReadsAsAbsentThere) {
  // 70 variants deep around a string: the innermost levels are cut off, no crash.
  std::string deep = "'core'";
  for (int i = 0; i < 70; ++i) deep = "<" + deep + ">";
  pxkit::glib::Variant variant(g_variant_parse(nullptr, deep.c_str(), nullptr, nullptr, nullptr));
  ASSERT_TRUE(variant);
  EXPECT_TRUE(pxkit::internal::valueOfVariant(variant.get()).isAbsent());
  // 60 deep is within the limit.
  std::string shallow = "'core'";
  for (int i = 0; i < 60; ++i) shallow = "[" + shallow + "]";
  pxkit::glib::Variant nested(g_variant_parse(nullptr, shallow.c_str(), nullptr, nullptr, nullptr));
  ASSERT_TRUE(nested);
  PXValue value = pxkit::internal::valueOfVariant(nested.get());
  for (int i = 0; i < 60; ++i) {
    ASSERT_TRUE(value.isArray()) << "level " << i;
    value = (*value.arrayValue())[0];
  }
  EXPECT_EQ(typed(value), "s:core");
}
