// PXKit — the host application's user defaults, kept in a property-list file.
#include <pxkit/objects/PXException.h>
#include <pxkit/platform/PXNotificationCenter.h>
#include <pxkit/platform/PXUserDefaults.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <unordered_map>

#include "platform/internal/AtomicFile.h"
#include "platform/internal/GLibHandles.h"
#include "platform/internal/PreferencesStore.h"
#include "platform/internal/RunOnContext.h"

using pxkit::internal::PreferencesStore;

const char* const kPXUserDefaultsDidChangeNotification = "NSUserDefaultsDidChangeNotification";

PX_DEFINE_CLASS(PXUserDefaults, PXObject, nullptr)

// ---- Watching the file ---------------------------------------------------------

namespace pxkit::internal {

// The file monitor of one defaults object. It delivers on the default main
// context: a change written by another process is read in on the main thread.
struct UserDefaultsMonitor {
  glib::Object<GFileMonitor> monitor;
  gulong handler = 0;

  static void onChanged(GFileMonitor*, GFile*, GFile*, GFileMonitorEvent event, gpointer data) {
    // A replaced file arrives as a rename (or a move in); an edited one as
    // changes. Anything that can alter the bytes is worth a look: the look
    // itself compares bytes and does nothing when they are the ones last seen.
    if (event == G_FILE_MONITOR_EVENT_ATTRIBUTE_CHANGED) return;
    static_cast<PXUserDefaults*>(data)->reloadFromFile();
  }

  void start(PXUserDefaults* owner, const std::string& path) {
    glib::Object<GFile> file(g_file_new_for_path(path.c_str()));
    glib::Error error;
    monitor.reset(g_file_monitor_file(file.get(), G_FILE_MONITOR_WATCH_MOVES, nullptr, glib::out(error)));
    if (!monitor) return;  // no monitor (unusual file system): changes from others arrive at synchronize()
    handler = g_signal_connect(monitor.get(), "changed", G_CALLBACK(&UserDefaultsMonitor::onChanged), owner);
  }

  ~UserDefaultsMonitor() {
    if (monitor && handler) g_signal_handler_disconnect(monitor.get(), handler);
    if (monitor) g_file_monitor_cancel(monitor.get());
  }
};

}  // namespace pxkit::internal

namespace {

// What typed text reads as a boolean: after blanks, a sign and leading zeros,
// one of Y, y, T, t or a digit 1-9 means true ("YES", "true", "1", "0042").
bool textIsTrue(std::string_view s) {
  size_t i = 0;
  while (i < s.size() && (s[i] == ' ' || s[i] == '\t' || s[i] == '\n' || s[i] == '\r')) ++i;
  if (i < s.size() && (s[i] == '+' || s[i] == '-')) ++i;
  while (i < s.size() && s[i] == '0') ++i;
  return i < s.size() && std::string_view("YyTt123456789").find(s[i]) != std::string_view::npos;
}

std::mutex& registryMutex() {
  static std::mutex mutex;
  return mutex;
}

// Defaults objects by application id; never freed.
std::unordered_map<std::string, PXUserDefaults*>& registry() {
  static auto* map = new std::unordered_map<std::string, PXUserDefaults*>();
  return *map;
}

}  // namespace

// ---- Making ----------------------------------------------------------------------

PXUserDefaults* PXUserDefaults::standardUserDefaults() {
  static PXUserDefaults* standard = userDefaultsForApplication(pxkit::internal::currentApplicationID());
  return standard;
}

PXUserDefaults* PXUserDefaults::userDefaultsForApplication(std::string_view applicationID) {
  if (!pxkit::internal::isUsableApplicationID(applicationID)) return nullptr;
  std::lock_guard lock(registryMutex());
  PXUserDefaults*& defaults = registry()[std::string(applicationID)];
  if (!defaults) {
    std::string id(applicationID);
    defaults =
        new PXUserDefaults(id, pxkit::internal::preferencesFilePath(id));  // the registry's count, kept
  }
  return defaults;
}

PXUserDefaults::PXUserDefaults(std::string applicationID, std::string path)
    : applicationID_(std::move(applicationID)),
      path_(std::move(path)),
      store_(PreferencesStore::forPath(path_)),
      registered_(PXMutableDictionary::dictionary()) {
  startMonitoring();
}

PXUserDefaults::~PXUserDefaults() = default;

void PXUserDefaults::startMonitoring() {
  // The directory must exist for the monitor to watch it.
  gchar* directory = g_path_get_dirname(path_.c_str());
  pxkit::internal::makeDirectories(directory);
  g_free(directory);
  monitor_ = std::make_unique<pxkit::internal::UserDefaultsMonitor>();
  // The monitor delivers on the main context: made here when this thread may
  // run that context, else made there, catching up on what changed until then.
  // Made there means: on another thread, or on this one after the call returned.
  const std::thread::id maker = std::this_thread::get_id();
  auto returned = std::make_shared<std::atomic<bool>>(false);
  const bool ranHere = pxkit::internal::runOnContext(
      g_main_context_default(),
      [this, maker, returned] {
        monitor_->start(this, path_);
        if (std::this_thread::get_id() != maker || returned->load(std::memory_order_acquire))
          reloadFromFile();
      },
      pxkit::internal::RunOnContextMode::DontWait);
  if (!ranHere) returned->store(true, std::memory_order_release);
}

// ---- Announcing --------------------------------------------------------------------

void PXUserDefaults::addChangeMirror(PXObject* mirror) {
  std::lock_guard lock(mutex_);
  mirrors_.emplace_back(mirror);
}

template <class Change>
void PXUserDefaults::announce(const std::vector<std::string>& keys, Change&& change) {
  std::vector<PXRef<PXObject>> mirrors;
  {
    std::lock_guard lock(mutex_);
    for (const auto& weak : mirrors_) {
      if (PXRef<PXObject> mirror = weak.lock()) mirrors.push_back(std::move(mirror));
    }
  }
  for (const std::string& key : keys) {
    willChangeValueForKey(key);
    for (const auto& mirror : mirrors) mirror->willChangeValueForKey(key);
  }
  change();
  for (auto key = keys.rbegin(); key != keys.rend(); ++key) {
    for (auto mirror = mirrors.rbegin(); mirror != mirrors.rend(); ++mirror)
      (*mirror)->didChangeValueForKey(*key);
    didChangeValueForKey(*key);
  }
  if (!keys.empty())
    PXNotificationCenter::defaultCenter()->postNotificationName(kPXUserDefaultsDidChangeNotification, this);
}

void PXUserDefaults::reloadFromFile() {
  std::optional<pxkit::internal::PreferencesDiskState> state = store_->readIfChanged();
  if (!state) return;
  std::vector<std::string> keys = store_->keysChangedBy(*state);
  bool adopted = false;
  announce(keys, [&] { adopted = store_->adopt(*state); });
  (void)adopted;  // not adopted: a newer content was seen meanwhile and has been announced itself
}

void PXUserDefaults::scheduleSynchronize() {
  if (synchronizeScheduled_.exchange(true)) return;
  pxkit::glib::Source source(g_idle_source_new());
  g_source_set_callback(
      source.get(),
      [](gpointer data) -> gboolean {
        auto* self = static_cast<PXUserDefaults*>(data);
        self->synchronizeScheduled_ = false;  // changes made from here on need another round
        (void)self->synchronize();
        return G_SOURCE_REMOVE;
      },
      this, nullptr);
  g_source_attach(source.get(), g_main_context_default());
}

// ---- Reading -------------------------------------------------------------------------

PXValue PXUserDefaults::objectForKey(std::string_view key) const {
  PXValue value = store_->objectForKey(key);
  if (value) return value;
  std::lock_guard lock(mutex_);
  const PXValue* registered = registered_->findStringKey(key);
  return registered ? *registered : PXValue();
}

PXString PXUserDefaults::stringForKey(std::string_view key) const {
  PXValue v = objectForKey(key);
  if (v.isString()) return v.stringObject();
  if (v.isNumber()) return v.description();
  return {};
}

PXRef<PXArray> PXUserDefaults::arrayForKey(std::string_view key) const {
  return objectForKey(key).arrayValue();
}
PXRef<PXDictionary> PXUserDefaults::dictionaryForKey(std::string_view key) const {
  return objectForKey(key).dictionaryValue();
}
PXRef<PXData> PXUserDefaults::dataForKey(std::string_view key) const {
  return objectForKey(key).dataValue();
}

bool PXUserDefaults::boolForKey(std::string_view key) const {
  PXValue v = objectForKey(key);
  if (v.isString()) return textIsTrue(v.stringValue());
  return v.isNumber() && v.boolValue();
}

int64_t PXUserDefaults::integerForKey(std::string_view key) const {
  PXValue v = objectForKey(key);
  return v.isNumber() || v.isString() ? v.longLongValue() : 0;
}

double PXUserDefaults::doubleForKey(std::string_view key) const {
  PXValue v = objectForKey(key);
  return v.isNumber() || v.isString() ? v.doubleValue() : 0.0;
}

PXRef<PXDictionary> PXUserDefaults::dictionaryRepresentation() const {
  PXRef<PXMutableDictionary> all;
  {
    std::lock_guard lock(mutex_);
    all = registered_->mutableCopyDictionary();
  }
  all->addEntriesFromDictionary(*store_->dictionaryRepresentation());
  return all->copyDictionary();
}

PXValue PXUserDefaults::valueForKey(std::string_view key) const {
  return objectForKey(key);
}
void PXUserDefaults::setValueForKey(const PXValue& value, std::string_view key) {
  setObject(value, key);
}

// ---- Writing ---------------------------------------------------------------------------

void PXUserDefaults::setObject(const PXValue& value, std::string_view key) {
  if (value.isAbsent()) {
    removeObjectForKey(key);
    return;
  }
  PXValue copy = PreferencesStore::deepImmutableCopy(value);
  if (copy.isAbsent()) {
    PXException::raise(kPXInvalidArgumentException,
                       "Attempt to insert non-property list object %@ for key %@", value, PXString(key));
  }
  announce({std::string(key)}, [&] { store_->setObject(copy, key); });
  scheduleSynchronize();
}

void PXUserDefaults::removeObjectForKey(std::string_view key) {
  announce({std::string(key)}, [&] { store_->setObject(PXValue(), key); });
  scheduleSynchronize();
}

void PXUserDefaults::setBool(bool value, std::string_view key) {
  setObject(PXValue(value), key);
}
void PXUserDefaults::setInteger(int64_t value, std::string_view key) {
  setObject(PXValue(static_cast<long long>(value)), key);
}
void PXUserDefaults::setDouble(double value, std::string_view key) {
  setObject(PXValue(value), key);
}

void PXUserDefaults::registerDefaults(const PXDictionary& defaults) {
  std::vector<std::pair<PXValue, PXValue>> entries;
  std::vector<std::string> changed;
  for (const auto& [key, value] : defaults) {
    PXValue copy = PreferencesStore::deepImmutableCopy(value);
    if (!key.isString() || copy.isAbsent()) {
      PXException::raise(kPXInvalidArgumentException,
                         "Attempt to register non-property list object %@ for key %@", value, key);
    }
    // Only keys without a value of their own change what readers see.
    if (store_->objectForKey(key.stringValue()).isAbsent()) {
      std::lock_guard lock(mutex_);
      const PXValue* before = registered_->find(key);
      if (!before || !before->isEqual(copy)) changed.emplace_back(key.stringValue());
    }
    entries.emplace_back(key, std::move(copy));
  }
  announce(changed, [&] {
    std::lock_guard lock(mutex_);
    for (const auto& [key, value] : entries) registered_->setObject(value, key);
  });
}

bool PXUserDefaults::synchronize(PXErrorRef* error) {
  // Others' changes first, announced with their old values; then the write.
  reloadFromFile();
  std::vector<std::string> late;
  bool ok = store_->synchronize(&late, error);
  // Changes that others wrote between the look above and the write: already in
  // place, so their observers see the new value as both old and new.
  if (!late.empty()) announce(late, [] {});
  return ok;
}
