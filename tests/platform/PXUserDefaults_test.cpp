// The host's user defaults: the file under XDG_CONFIG_HOME, typed reads,
// registered defaults, change announcements in this process and from others,
// concurrent writers, and writers killed at random moments.
#include <gio/gio.h>
#include <glib.h>
#include <gtest/gtest.h>
#include <pxkit/objects/PXException.h>
#include <pxkit/platform/PXBundle.h>
#include <pxkit/platform/PXNotificationCenter.h>
#include <pxkit/platform/PXPropertyList.h>
#include <pxkit/platform/PXUserDefaults.h>
#include <pxkit/platform/PXUserDefaultsController.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "support/PXRunLoopUntil.h"
#include "support/PXSubprocess.h"
#include "support/PXTempHome.h"

#ifndef PXKIT_PREFS_CHILD
#error "PXKIT_PREFS_CHILD names the helper process"
#endif

namespace {

constexpr const char* kAppID = "org.pxkit.PrefsTest";

// Records every change it is told of.
class ChangeRecorder : public PXObject {
 public:
  struct Change {
    std::string keyPath;
    PXValue newValue, oldValue;
    std::thread::id thread;
  };
  void observeValueForKeyPath(const PXString& keyPath, PXObject*, const PXDictionary& change,
                              void*) override {
    std::lock_guard lock(mutex_);
    changes_.push_back({keyPath.str(), change.objectForKey(kPXKeyValueChangeNewKey),
                        change.objectForKey(kPXKeyValueChangeOldKey), std::this_thread::get_id()});
  }
  std::vector<Change> changes() const {
    std::lock_guard lock(mutex_);
    return changes_;
  }
  size_t count() const {
    std::lock_guard lock(mutex_);
    return changes_.size();
  }

 private:
  mutable std::mutex mutex_;
  std::vector<Change> changes_;
};

constexpr unsigned kNewAndOld = PXKeyValueObservingOptionNew | PXKeyValueObservingOptionOld;

// Runs the helper process to the end; its exit status (-1 when it could not run).
int runChild(std::vector<std::string> args) {
  args.insert(args.begin(), PXKIT_PREFS_CHILD);
  return PXSubprocess::run(args).exitStatus;
}

// The root dictionary of a preferences file, or empty when it is missing or unreadable.
PXRef<PXDictionary> readPreferences(const std::string& path) {
  gchar* text = nullptr;
  gsize length = 0;
  if (!g_file_get_contents(path.c_str(), &text, &length, nullptr)) return {};
  PXValue v = PXPropertyList::propertyListWithString(std::string_view(text, length));
  g_free(text);
  return v.dictionaryValue();
}

std::vector<std::string> directoryEntries(const std::string& dir) {
  std::vector<std::string> names;
  if (GDir* d = g_dir_open(dir.c_str(), 0, nullptr)) {
    while (const char* name = g_dir_read_name(d)) names.emplace_back(name);
    g_dir_close(d);
  }
  std::sort(names.begin(), names.end());
  return names;
}

// The payload the helper writes with a counter value (see PXPreferencesChild.cpp).
std::string payloadFor(long long counter, size_t bytes) {
  std::string unit = std::to_string(counter) + ";";
  std::string payload;
  while (payload.size() < bytes) payload += unit;
  return payload;
}

// Counts the "changes done" events of a file, as seen by a monitor of the test's own.
class FileEvents {
 public:
  explicit FileEvents(const std::string& path) {
    GFile* file = g_file_new_for_path(path.c_str());
    monitor_ = g_file_monitor_file(file, G_FILE_MONITOR_WATCH_MOVES, nullptr, nullptr);
    g_object_unref(file);
    g_signal_connect(monitor_, "changed", G_CALLBACK(&FileEvents::onChanged), this);
  }
  ~FileEvents() {
    g_signal_handlers_disconnect_by_data(monitor_, this);
    g_object_unref(monitor_);
  }
  int count() const { return count_; }

 private:
  static void onChanged(GFileMonitor*, GFile*, GFile*, GFileMonitorEvent event, gpointer self) {
    if (event == G_FILE_MONITOR_EVENT_CHANGES_DONE_HINT) ++static_cast<FileEvents*>(self)->count_;
  }
  GFileMonitor* monitor_;
  int count_ = 0;
};

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
    EXPECT_FALSE(PXUserDefaults::userDefaultsForApplication(bad)) << bad;

  defaults->registerDefaults(*PXDictionary::dictionaryWithEntries({{"Volume", 7}, {"Name", "default"}}));
  defaults->setBool(true, "PXMetricsDisabled");
  defaults->setObject(PXValue(PXDictionary::dictionaryWithEntries({{"a", 1}})), "Metrics");
  defaults->setDouble(0.1, "Ratio");
  defaults->setInteger(3, "Volume");
  EXPECT_FALSE(g_file_test(filePath().c_str(), G_FILE_TEST_EXISTS)) << "written before synchronize";
  PXErrorRef error;
  ASSERT_TRUE(defaults->synchronize(&error)) << error->description().str();

  PXRef<PXDictionary> onDisk = readPreferences(filePath());
  ASSERT_TRUE(onDisk);
  EXPECT_TRUE(PXValue(onDisk).isEqual(PXValue(PXDictionary::dictionaryWithEntries(
      {{"PXMetricsDisabled", true},
       {"Metrics", PXValue(PXDictionary::dictionaryWithEntries({{"a", 1}}))},
       {"Ratio", 0.1},
       {"Volume", 3}}))));
  struct stat st {};
  ASSERT_EQ(::stat(filePath().c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  // Only the file and its lock file: no temporaries left behind.
  EXPECT_EQ(directoryEntries(appDirectory()),
            (std::vector<std::string>{std::string(kAppID) + ".plist", std::string(kAppID) + ".plist.lock"}));

  // Removing a key removes it from the file; the registered default answers again.
  defaults->removeObjectForKey("Volume");
  EXPECT_EQ(defaults->integerForKey("Volume"), 7);
  EXPECT_EQ(defaults->stringForKey("Name"), "default");
  ASSERT_TRUE(defaults->synchronize());
  EXPECT_FALSE(readPreferences(filePath())->objectForKey("Volume"));
  EXPECT_EQ(readPreferences(filePath())->count(), 3u);
}

TEST_F(PXUserDefaultsTest, AFileThatCannotBeWrittenIsAnErrorAndTheValueWaitsForTheNextSynchronize) {
  // A regular file where the application's directory belongs.
  std::filesystem::remove_all(appDirectory());
  home.writeFile(appDirectory(), "not a directory");
  defaults->setInteger(5, "Volume");
  PXErrorRef error;
  EXPECT_FALSE(defaults->synchronize(&error));
  ASSERT_TRUE(error);
  EXPECT_FALSE(error->localizedDescription().str().empty());
  EXPECT_EQ(defaults->integerForKey("Volume"), 5);

  ASSERT_EQ(::unlink(appDirectory().c_str()), 0);
  ASSERT_TRUE(defaults->synchronize());
  EXPECT_TRUE(readPreferences(filePath())->objectForKey("Volume").isEqual(PXValue(5)));
}

TEST_F(PXUserDefaultsTest, TypedReadsConvertAndStoredValuesAreImmutableCopies) {
  struct Row {
    const char* name;
    PXValue stored;
    bool asBool;
    int64_t asInteger;
    double asDouble;
    PXString asString;
  } rows[] = {
      {"absent", PXValue(), false, 0, 0.0, {}}, {"true", true, true, 1, 1.0, "1"},
      {"zero", 0, false, 0, 0.0, "0"},          {"negative", -7, true, -7, -7.0, "-7"},
      {"real", 2.75, true, 2, 2.75, "2.75"},    {"text YES", "YES", true, 0, 0.0, "YES"},
      {"text no", "no", false, 0, 0.0, "no"},   {"text number", " 42abc", true, 42, 42.0, " 42abc"},
      {"text zero", "0", false, 0, 0.0, "0"},   {"date", PXDate(5), false, 0, 0.0, {}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    defaults->setObject(row.stored, "k");
    EXPECT_EQ(defaults->boolForKey("k"), row.asBool);
    EXPECT_EQ(defaults->integerForKey("k"), row.asInteger);
    EXPECT_EQ(defaults->doubleForKey("k"), row.asDouble);
    EXPECT_EQ(defaults->stringForKey("k"), row.asString);
  }
  defaults->setObject(PXValue(PXData::dataWithString("raw")), "blob");
  EXPECT_FALSE(defaults->arrayForKey("blob"));
  EXPECT_TRUE(defaults->dataForKey("blob"));
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
  EXPECT_EQ(stored->count(), 1u);
  EXPECT_FALSE(stored->isMutable());
  EXPECT_FALSE(stored->objectAtIndex(0).objectPointer()->isMutable());
  EXPECT_EQ(stored->objectAtIndex(0).dictionaryValue()->objectForKey("n").longLongValue(), 1);

  for (const PXValue& bad : {PXValue::null(), PXValue(PXError::errorWithDomain("D", 1)),
                             PXValue(PXArray::arrayWithObjects({PXValue::null()})),
                             PXValue(PXDictionary::dictionaryWithEntries({{1, "number key"}}))}) {
    try {
      defaults->setObject(bad, "bad");
      ADD_FAILURE() << "accepted " << bad.description().str();
    } catch (const PXException& e) {
      EXPECT_EQ(e.name(), kPXInvalidArgumentException);
    }
  }
  EXPECT_FALSE(defaults->objectForKey("bad"));
}

// ---- Announcements in this process ---------------------------------------------------------

TEST_F(PXUserDefaultsTest, LocalChangesAreAnnouncedOnTheChangingThread) {
  PXUserDefaultsController* controller = PXUserDefaultsController::sharedUserDefaultsController();
  auto viaController = PXMake<ChangeRecorder>();
  auto viaDefaults = PXMake<ChangeRecorder>();
  controller->addObserver(viaController.get(), "values.Volume", kNewAndOld, nullptr);
  defaults->addObserver(viaDefaults.get(), "Volume", kNewAndOld, nullptr);
  std::atomic<int> notifications{0};
  PXRef<PXObject> token = PXNotificationCenter::defaultCenter()->addObserverForName(
      kPXUserDefaultsDidChangeNotification, defaults, nullptr,
      [&](const PXNotification&) { ++notifications; });

  defaults->registerDefaults(*PXDictionary::dictionaryWithEntries({{"Volume", 9}}));
  std::thread writer([&] { defaults->setInteger(3, "Volume"); });
  std::thread::id writerThread = writer.get_id();
  writer.join();
  defaults->removeObjectForKey("Volume");
  defaults->setInteger(4, "Other");  // not observed

  struct Expected {
    PXValue newValue, oldValue;
  } expected[] = {{9, PXValue::null()}, {3, 9}, {9, 3}};
  for (ChangeRecorder* recorder : {viaController.get(), viaDefaults.get()}) {
    std::vector<ChangeRecorder::Change> changes = recorder->changes();
    ASSERT_EQ(changes.size(), 3u);
    for (size_t i = 0; i < changes.size(); ++i) {
      SCOPED_TRACE(i);
      EXPECT_TRUE(changes[i].newValue.isEqual(expected[i].newValue))
          << changes[i].newValue.description().str();
      EXPECT_TRUE(changes[i].oldValue.isEqual(expected[i].oldValue))
          << changes[i].oldValue.description().str();
    }
    EXPECT_EQ(changes[1].thread, writerThread);
  }
  EXPECT_EQ(viaController->changes()[0].keyPath, "values.Volume");
  EXPECT_EQ(notifications.load(), 4);
  EXPECT_EQ(controller->valueForKeyPath("values.Volume").longLongValue(), 9);

  // Writing through the proxy writes the defaults.
  controller->setValueForKeyPath(5, "values.Volume");
  EXPECT_EQ(defaults->integerForKey("Volume"), 5);
  EXPECT_EQ(viaController->count(), 4u);

  PXNotificationCenter::defaultCenter()->removeObserver(token.get());
  controller->removeObserver(viaController.get(), "values.Volume");
  defaults->removeObserver(viaDefaults.get(), "Volume");
}

TEST_F(PXUserDefaultsTest, TheMainLoopWritesChangesSoonAfterTheyAreMade) {
  defaults->setInteger(12, "Written");
  ASSERT_TRUE(PXRunLoopUntil([&] {
    PXRef<PXDictionary> onDisk = readPreferences(filePath());
    return onDisk && onDisk->objectForKey("Written").isEqual(12);
  }));
}

// ---- Changes from other processes ------------------------------------------------------------

TEST_F(PXUserDefaultsTest, AChangeWrittenByAnotherProcessIsHeardOnTheMainLoop) {
  PXUserDefaultsController* controller = PXUserDefaultsController::sharedUserDefaultsController();
  auto recorder = PXMake<ChangeRecorder>();
  controller->addObserver(recorder.get(), "values.PXMetricsDisabled", kNewAndOld, nullptr);
  std::atomic<int> notifications{0};
  PXRef<PXObject> token = PXNotificationCenter::defaultCenter()->addObserverForName(
      kPXUserDefaultsDidChangeNotification, defaults, nullptr,
      [&](const PXNotification&) { ++notifications; });
  defaults->setObject("mine", "Local");  // pending: not synchronised yet

  ASSERT_EQ(runChild({"set", kAppID, "PXMetricsDisabled", "1"}), 0);
  ASSERT_TRUE(PXRunLoopUntil([&] { return recorder->count() >= 1; }));
  std::vector<ChangeRecorder::Change> changes = recorder->changes();
  ASSERT_EQ(changes.size(), 1u);
  EXPECT_EQ(changes[0].keyPath, "values.PXMetricsDisabled");
  EXPECT_TRUE(changes[0].newValue.isEqual(true));
  EXPECT_TRUE(changes[0].oldValue.isNull());
  EXPECT_EQ(changes[0].thread, std::this_thread::get_id());  // the main thread runs the main loop
  EXPECT_TRUE(controller->valueForKeyPath("values.PXMetricsDisabled").boolValue());
  EXPECT_GE(notifications.load(), 1);
  // The local change not yet written survives the other write, and both reach the file.
  EXPECT_EQ(defaults->stringForKey("Local"), "mine");
  ASSERT_TRUE(defaults->synchronize());
  PXRef<PXDictionary> onDisk = readPreferences(filePath());
  ASSERT_TRUE(onDisk);
  EXPECT_EQ(onDisk->objectForKey("Local").stringValue(), "mine");
  EXPECT_TRUE(onDisk->objectForKey("PXMetricsDisabled").isEqual(true));

  // A removal by another process is a change to "nothing".
  ASSERT_EQ(runChild({"set", kAppID, "PXMetricsDisabled"}), 0);
  ASSERT_TRUE(PXRunLoopUntil([&] { return recorder->count() >= 2; }));
  changes = recorder->changes();
  ASSERT_EQ(changes.size(), 2u);
  EXPECT_TRUE(changes[1].newValue.isNull());
  EXPECT_TRUE(changes[1].oldValue.isEqual(true));
  EXPECT_FALSE(defaults->objectForKey("PXMetricsDisabled"));

  PXNotificationCenter::defaultCenter()->removeObserver(token.get());
  controller->removeObserver(recorder.get(), "values.PXMetricsDisabled");
}

TEST_F(PXUserDefaultsTest, AFileRewrittenInPlaceIsHeardWithoutSpuriousChanges) {
  auto recorder = PXMake<ChangeRecorder>();
  defaults->setInteger(1, "Level");
  ASSERT_TRUE(defaults->synchronize());
  defaults->addObserver(recorder.get(), "Level", kNewAndOld, nullptr);
  FileEvents events(filePath());

  // An editor that truncates the file and writes it back in pieces: each
  // stage is let through the main loop, so the defaults look at it.
  std::string text = PXPropertyList::XMLStringWithPropertyList(
      PXValue(PXDictionary::dictionaryWithEntries({{"Level", 2}, {"Extra", "x"}})));
  for (std::string_view stage : {std::string_view(), std::string_view(text).substr(0, text.size() / 2)}) {
    SCOPED_TRACE(stage.size());
    int seen = events.count();
    home.writeFile(filePath(), stage);  // in place, as an editor without atomic saves
    ASSERT_TRUE(PXRunLoopUntil([&] { return events.count() > seen; }));
    while (g_main_context_iteration(nullptr, FALSE)) {
    }
    EXPECT_EQ(recorder->count(), 0u) << "a half-written file was taken for the preferences";
    EXPECT_EQ(defaults->integerForKey("Level"), 1);
  }
  home.writeFile(filePath(), text);
  ASSERT_TRUE(PXRunLoopUntil([&] { return defaults->integerForKey("Level") == 2; }));
  std::vector<ChangeRecorder::Change> changes = recorder->changes();
  ASSERT_EQ(changes.size(), 1u);
  EXPECT_TRUE(changes[0].newValue.isEqual(2));
  EXPECT_TRUE(changes[0].oldValue.isEqual(1));
  EXPECT_EQ(defaults->stringForKey("Extra"), "x");
  defaults->removeObserver(recorder.get(), "Level");
}

// Other processes and this one's threads write, read and synchronise at once:
// no key is lost, and each change is announced once.
TEST_F(PXUserDefaultsTest, ConcurrentProcessesAndThreadsKeepEachOthersKeys) {
  constexpr int kChildren = 3, kKeysEach = 20, kThreads = 4, kRounds = 200;
  auto recorder = PXMake<ChangeRecorder>();
  PXUserDefaultsController::sharedUserDefaultsController()->addObserver(recorder.get(), "values.t0-0",
                                                                        kNewAndOld, nullptr);
  std::vector<std::unique_ptr<PXSubprocess>> children;
  for (int c = 0; c < kChildren; ++c) {
    children.push_back(std::make_unique<PXSubprocess>(std::vector<std::string>{
        PXKIT_PREFS_CHILD, "setmany", kAppID, "child" + std::to_string(c) + "-", std::to_string(kKeysEach)}));
  }
  std::vector<std::thread> threads;
  std::atomic<int> failures{0};
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kRounds; ++i) {
        std::string key = "t" + std::to_string(t) + "-" + std::to_string(i % 10);
        defaults->setInteger(i, key);
        if (defaults->integerForKey(key) < 0) ++failures;
        (void)defaults->dictionaryRepresentation();
        if (i % 40 == 0 && !defaults->synchronize()) ++failures;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (auto& child : children) EXPECT_EQ(PXSubprocess::exitStatusOf(child->wait()), 0);
  EXPECT_EQ(failures.load(), 0);
  ASSERT_TRUE(defaults->synchronize());
  PXRef<PXDictionary> onDisk = readPreferences(filePath());
  ASSERT_TRUE(onDisk);
  EXPECT_EQ(onDisk->count(), static_cast<size_t>(kChildren * kKeysEach + kThreads * 10));
  for (int t = 0; t < kThreads; ++t) {
    for (int k = 0; k < 10; ++k) {
      std::string key = "t" + std::to_string(t) + "-" + std::to_string(k);
      EXPECT_TRUE(onDisk->objectForKey(key).isEqual(kRounds - 10 + k)) << key;
    }
  }
  for (int c = 0; c < kChildren; ++c) {
    for (int i = 0; i < kKeysEach; ++i) {
      std::string key = "child" + std::to_string(c) + "-" + std::to_string(i);
      EXPECT_TRUE(onDisk->objectForKey(key).isEqual(i)) << key;
      EXPECT_TRUE(defaults->objectForKey(key).isEqual(i)) << key;  // synchronize read them in
    }
  }
  EXPECT_EQ(recorder->count(), static_cast<size_t>(kRounds / 10));
  PXUserDefaultsController::sharedUserDefaultsController()->removeObserver(recorder.get(), "values.t0-0");
}

// ---- Crash safety ----------------------------------------------------------------------------

TEST_F(PXUserDefaultsTest, AWriterKilledAtRandomMomentsLeavesTheOldOrTheNewFile) {
  constexpr const char* kApp = "org.pxkit.CrashTest";
  constexpr size_t kPayloadBytes = 64 * 1024;
  const std::string dir = home.configHome() + "/" + kApp;
  const std::string path = dir + "/" + kApp + ".plist";
  GRand* rand = g_rand_new_with_seed(0x5eed);
  long long inFile = 0;  // the counter the file held after the previous round
  int killedMidWrite = 0;
  for (int round = 0; round < 200; ++round) {
    SCOPED_TRACE(round);
    PXSubprocess writer({PXKIT_PREFS_CHILD, "loop", kApp, std::to_string(kPayloadBytes)});
    ASSERT_GT(writer.pid(), 0);
    // Let it finish a few writes (or none), then kill it at a random moment:
    // the pause only spreads the kill over the write cycle.
    long long acknowledged = inFile;
    for (int lines = g_rand_int_range(rand, 0, 4); lines > 0; --lines) {
      if (std::optional<std::string> n = writer.readLine()) acknowledged = std::stoll(*n);
    }
    g_usleep(static_cast<gulong>(g_rand_int_range(rand, 0, 5000)));
    writer.kill(SIGKILL);
    while (std::optional<std::string> n = writer.readLine()) acknowledged = std::stoll(*n);
    const int status = writer.wait();
    ASSERT_TRUE(PXSubprocess::killedBy(status, SIGKILL)) << "the writer stopped by itself: " << status;

    // The file is always a whole property list, holding the last write the
    // writer acknowledged or the one it was making when it died.
    if (!g_file_test(path.c_str(), G_FILE_TEST_EXISTS)) {
      ASSERT_EQ(acknowledged, 0) << "the file vanished after a write was acknowledged";
      continue;
    }
    PXRef<PXDictionary> onDisk = readPreferences(path);
    ASSERT_TRUE(onDisk) << "unreadable preferences file";
    long long counter = onDisk->objectForKey("Counter").longLongValue();
    EXPECT_TRUE(counter == acknowledged || counter == acknowledged + 1)
        << "file holds " << counter << ", last acknowledged " << acknowledged;
    EXPECT_GE(counter, inFile);
    EXPECT_EQ(onDisk->objectForKey("Payload").stringValue(), payloadFor(counter, kPayloadBytes));
    if (counter == acknowledged + 1) ++killedMidWrite;
    inFile = counter;
  }
  g_rand_free(rand);
  EXPECT_GT(inFile, 0);

  // The next writer clears what killed writers left half done.
  PXUserDefaults* crashDefaults = PXUserDefaults::userDefaultsForApplication(kApp);
  ASSERT_TRUE(crashDefaults);
  EXPECT_EQ(crashDefaults->integerForKey("Counter"), inFile);
  crashDefaults->setInteger(-1, "Counter");
  ASSERT_TRUE(crashDefaults->synchronize());
  EXPECT_EQ(directoryEntries(dir),
            (std::vector<std::string>{std::string(kApp) + ".plist", std::string(kApp) + ".plist.lock"}));
  RecordProperty("killedAfterRenameBeforeAcknowledging", killedMidWrite);
}
