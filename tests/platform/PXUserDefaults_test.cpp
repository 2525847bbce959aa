// The host's user defaults: the file under XDG_CONFIG_HOME, typed reads,
// registered defaults, and changes made to the file by others. (Writers killed
// mid-save: the metrics tracker's crash test.)
#include <gio/gio.h>
#include <glib.h>
#include <gtest/gtest.h>
#include <pxkit/objects/PXException.h>
#include <pxkit/platform/PXBundle.h>
#include <pxkit/platform/PXPropertyList.h>
#include <pxkit/platform/PXUserDefaults.h>
#include <pxkit/platform/PXUserDefaultsController.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "support/PXRunLoopUntil.h"
#include "support/PXTempHome.h"

namespace {

constexpr const char* kAppID = "org.pxkit.PrefsTest";
using Lines = std::vector<std::string>;

// Records every change it is told of as "<key path> <new> <- <old>", marked when
// told on another thread than the one that made the recorder.
class ChangeRecorder : public PXObject {
 public:
  void observeValueForKeyPath(const PXString& keyPath, PXObject*, const PXDictionary& change,
                              void*) override {
    std::lock_guard lock(mutex_);
    changes_.push_back(keyPath.str() + " " +
                       change.objectForKey(kPXKeyValueChangeNewKey).description().str() + " <- " +
                       change.objectForKey(kPXKeyValueChangeOldKey).description().str() +
                       (std::this_thread::get_id() == owner_ ? "" : " elsewhere"));
  }
  Lines changes() const {
    std::lock_guard lock(mutex_);
    return changes_;
  }

 private:
  mutable std::mutex mutex_;
  Lines changes_;
  const std::thread::id owner_ = std::this_thread::get_id();
};

constexpr unsigned kNewAndOld = PXKeyValueObservingOptionNew | PXKeyValueObservingOptionOld;

// The root dictionary of a preferences file, or empty when it is missing or unreadable.
PXRef<PXDictionary> readPreferences(const std::string& path) {
  gchar* text = nullptr;
  gsize length = 0;
  if (!g_file_get_contents(path.c_str(), &text, &length, nullptr)) return {};
  PXValue v = PXPropertyList::propertyListWithString(std::string_view(text, length));
  g_free(text);
  return v.dictionaryValue();
}

class PXUserDefaultsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(PXBundle::setMainBundleIdentity(kAppID));
    defaults = PXUserDefaults::standardUserDefaults();
  }
  std::string appDirectory() const { return home.configHome() + "/" + kAppID; }
  std::string filePath() const { return appDirectory() + "/" + kAppID + ".plist"; }

  PXTempHome home;  // first: before any GLib call
  PXUserDefaults* defaults = nullptr;
};

}  // namespace

// ---- The file ---------------------------------------------------------------------------

TEST_F(PXUserDefaultsTest, SynchronizeWritesWhatIsSetButNeverTheRegisteredDefaults) {
  EXPECT_EQ(defaults->filePath(), filePath());
  EXPECT_EQ(PXUserDefaults::userDefaultsForApplication(kAppID), defaults);
  for (const char* bad : {"", ".", "..", "a/b"})
    EXPECT_FALSE(PXUserDefaults::userDefaultsForApplication(bad));

  // A regular file where the application's directory belongs: an error, and
  // the value waits for the next synchronize.
  std::filesystem::remove_all(appDirectory());
  home.writeFile(appDirectory(), "not a directory");
  defaults->registerDefaults(*PXDictionary::dictionaryWithEntries({{"Volume", 7}, {"Name", "default"}}));
  defaults->setBool(true, "PXMetricsDisabled");
  defaults->setDouble(0.1, "Ratio");
  defaults->setInteger(3, "Volume");
  PXErrorRef error;
  EXPECT_FALSE(defaults->synchronize(&error));
  ASSERT_TRUE(error);
  EXPECT_FALSE(error->localizedDescription().str().empty());
  ASSERT_EQ(::unlink(appDirectory().c_str()), 0);
  ASSERT_TRUE(defaults->synchronize(&error)) << error->description().str();

  EXPECT_TRUE(PXValue(readPreferences(filePath()))
                  .isEqual(PXValue(PXDictionary::dictionaryWithEntries(
                      {{"PXMetricsDisabled", true}, {"Ratio", 0.1}, {"Volume", 3}}))));
  struct stat st {};
  ASSERT_EQ(::stat(filePath().c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  // Only the file and its lock file: no temporaries left behind.
  EXPECT_TRUE(std::filesystem::exists(filePath() + ".lock"));
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(appDirectory()), {}), 2);

  // Removing a key removes it from the file; the registered default answers again.
  defaults->removeObjectForKey("Volume");
  EXPECT_EQ(defaults->integerForKey("Volume"), 7);
  EXPECT_EQ(defaults->dictionaryRepresentation()->objectForKey("Name").stringValue(), "default");
  // The main loop writes changes soon after they are made.
  ASSERT_TRUE(PXRunLoopUntil([&] { return !readPreferences(filePath())->objectForKey("Volume"); }));
  EXPECT_EQ(readPreferences(filePath())->count(), 2u);
}

TEST_F(PXUserDefaultsTest, TypedReadsConvertAndStoredValuesAreImmutableCopies) {
  struct Row {
    PXValue stored;
    bool asBool;
    int64_t asInteger;
    double asDouble;
    PXString asString;
  } rows[] = {
      {PXValue(), false, 0, 0.0, {}}, {true, true, 1, 1.0, "1"},
      {0, false, 0, 0.0, "0"},        {-7, true, -7, -7.0, "-7"},
      {2.75, true, 2, 2.75, "2.75"},  {"\t\n\r YES", true, 0, 0.0, "\t\n\r YES"},
      {"+no", false, 0, 0.0, "+no"},  {" 42abc", true, 42, 42.0, " 42abc"},
      {"-0", false, 0, 0.0, "-0"},    {PXDate(5), false, 0, 0.0, {}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.stored.description().str());
    defaults->setObject(row.stored, "k");
    EXPECT_EQ(defaults->boolForKey("k"), row.asBool);
    EXPECT_EQ(defaults->integerForKey("k"), row.asInteger);
    EXPECT_EQ(defaults->doubleForKey("k"), row.asDouble);
    EXPECT_EQ(defaults->stringForKey("k"), row.asString);
  }
  defaults->setObject(PXValue(PXData::dataWithString("raw")), "blob");
  EXPECT_FALSE(defaults->arrayForKey("blob"));
  EXPECT_EQ(defaults->valueForKey("blob").dataValue()->view(), "raw");  // key-value coding reads the defaults

  auto list = PXMutableArray::array();
  auto inner = PXMutableDictionary::dictionary();
  inner->setObject(1, "n");
  list->addObject(PXValue(inner));
  defaults->setObject(PXValue(list), "list");
  list->addObject("later");
  inner->setObject(2, "n");
  PXRef<PXArray> stored = defaults->arrayForKey("list");
  ASSERT_TRUE(stored);
  EXPECT_FALSE(defaults->dictionaryForKey("list"));
  EXPECT_FALSE(defaults->dataForKey("list"));
  EXPECT_TRUE(PXValue(stored).isEqual(
      PXValue(PXArray::arrayWithObjects({PXDictionary::dictionaryWithEntries({{"n", 1}})}))));
  EXPECT_FALSE(stored->isMutable());
  EXPECT_FALSE(stored->objectAtIndex(0).objectPointer()->isMutable());

  for (const PXValue& bad : {PXValue::null(), PXValue(PXError::errorWithDomain("D", 1)),
                             PXValue(PXArray::arrayWithObjects({PXValue::null()})),
                             PXValue(PXDictionary::dictionaryWithEntries({{1, "number key"}}))}) {
    EXPECT_THROW(defaults->setObject(bad, "bad"), PXException) << bad.description().str();
  }
  EXPECT_FALSE(defaults->objectForKey("bad"));
}

// ---- Announcements ------------------------------------------------------------------------

// An editor that truncates the file and writes it back in pieces: no stage
// before the last is taken for the preferences.
TEST_F(PXUserDefaultsTest, AFileRewrittenInPlaceIsHeardWithoutSpuriousChanges) {
  auto recorder = PXMake<ChangeRecorder>();
  defaults->setInteger(1, "Level");
  ASSERT_TRUE(defaults->synchronize());
  PXUserDefaultsController* controller = PXUserDefaultsController::sharedUserDefaultsController();
  controller->addObserver(recorder.get(), "values.Level", kNewAndOld, nullptr);
  // A monitor of the test's own tells when a stage has been let through the main loop.
  int changesDone = 0;
  GFile* file = g_file_new_for_path(filePath().c_str());
  GFileMonitor* monitor = g_file_monitor_file(file, G_FILE_MONITOR_WATCH_MOVES, nullptr, nullptr);
  g_signal_connect(monitor, "changed",
                   G_CALLBACK(+[](GFileMonitor*, GFile*, GFile*, GFileMonitorEvent event, gpointer count) {
                     if (event == G_FILE_MONITOR_EVENT_CHANGES_DONE_HINT) ++*static_cast<int*>(count);
                   }),
                   &changesDone);
  std::string text = PXPropertyList::XMLStringWithPropertyList(
      PXValue(PXDictionary::dictionaryWithEntries({{"Level", 2}, {"Extra", "x"}})));
  for (std::string_view stage : {std::string_view(), std::string_view(text).substr(0, text.size() / 2)}) {
    const int seen = changesDone;
    home.writeFile(filePath(), stage);  // in place, as an editor without atomic saves
    ASSERT_TRUE(PXRunLoopUntil([&] { return changesDone > seen; }));
    while (g_main_context_iteration(nullptr, FALSE)) {
    }
    EXPECT_EQ(defaults->integerForKey("Level"), 1) << "a half-written file was taken for the preferences";
  }
  home.writeFile(filePath(), text);
  ASSERT_TRUE(PXRunLoopUntil([&] { return defaults->integerForKey("Level") == 2; }));
  EXPECT_EQ(recorder->changes(), (Lines{"values.Level 2 <- 1"}));
  EXPECT_EQ(defaults->stringForKey("Extra"), "x");
  controller->removeObserver(recorder.get(), "values.Level");
  controller->setValueForKeyPath(3, "values.Level");  // writing through the proxy writes the defaults
  EXPECT_EQ(defaults->integerForKey("Level"), 3);
  g_signal_handlers_disconnect_by_data(monitor, &changesDone);
  g_object_unref(monitor);
  g_object_unref(file);
}
