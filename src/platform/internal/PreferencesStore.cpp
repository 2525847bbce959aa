// PXKit internal — one preferences file and this process's view of it.
#include "platform/internal/PreferencesStore.h"

#include <glib.h>
#include <pxkit/objects/PXArray.h>
#include <pxkit/platform/PXBundle.h>
#include <pxkit/platform/PXPropertyList.h>

#include <cstdlib>
#include <unordered_map>

#include "platform/internal/AtomicFile.h"

namespace pxkit::internal {

namespace {

// `depth` counts the containers around `v`, as the property-list writer does.
PXValue copyValue(const PXValue& v, size_t depth) {
  if ((v.isArray() || v.isDictionary()) && depth >= kPXPropertyListMaxDepth) return {};
  switch (v.kind()) {
    case PXValue::Kind::Absent:
    case PXValue::Kind::Null:
      return {};
    case PXValue::Kind::Bool:
    case PXValue::Kind::Int:
    case PXValue::Kind::UInt:
    case PXValue::Kind::Double:
      return v;
    case PXValue::Kind::Date:
      return PXPropertyList::ISO8601StringFromDate(v.dateValue()).empty() ? PXValue() : v;
    case PXValue::Kind::String: {
      std::string_view s = v.stringValue();
      if (s.find('\0') != std::string_view::npos || !g_utf8_validate_len(s.data(), s.size(), nullptr))
        return {};
      return v;
    }
    case PXValue::Kind::Data: {
      PXRef<PXData> data = v.dataValue();
      if (!data) return {};
      return data->isMutable() ? PXValue(PXData::dataWithBytes(data->bytes().data(), data->length())) : v;
    }
    case PXValue::Kind::Object:
      break;
  }
  if (PXRef<PXArray> array = v.arrayValue()) {
    std::vector<PXValue> items;
    items.reserve(array->count());
    for (const PXValue& item : *array) {
      PXValue copy = copyValue(item, depth + 1);
      if (copy.isAbsent()) return {};
      items.push_back(std::move(copy));
    }
    return PXValue(PXArray::arrayWithValues(std::move(items)));
  }
  if (PXRef<PXDictionary> dict = v.dictionaryValue()) {
    std::vector<PXDictionary::Entry> entries;
    entries.reserve(dict->count());
    for (const auto& [key, item] : *dict) {
      if (!key.isString() || copyValue(key, depth).isAbsent()) return {};
      PXValue copy = copyValue(item, depth + 1);
      if (copy.isAbsent()) return {};
      entries.emplace_back(key, std::move(copy));
    }
    return PXValue(PXDictionary::dictionaryWithEntries(std::move(entries)));
  }
  return {};
}

}  // namespace

bool isUsableApplicationID(std::string_view id) {
  return !id.empty() && id != "." && id != ".." && id.find('/') == std::string_view::npos &&
         id.find('\0') == std::string_view::npos;
}

std::string currentApplicationID() {
  PXString id = PXBundle::mainBundle()->bundleIdentifier();
  if (id && isUsableApplicationID(id.view())) return id.str();
  const char* program = g_get_prgname();
  if (program && isUsableApplicationID(program)) return program;
  return "pxkit-application";
}

std::string userConfigHome() {
  // Read at each use rather than cached, so a test (or a host) that points
  // XDG_CONFIG_HOME elsewhere before opening its preferences is heard.
  const char* home = std::getenv("XDG_CONFIG_HOME");
  if (home && g_path_is_absolute(home)) return home;
  return g_get_user_config_dir();
}

std::string preferencesFilePath(std::string_view applicationID, std::string_view suffix) {
  std::string id(applicationID);
  std::string name = id + std::string(suffix) + ".plist";
  gchar* path = g_build_filename(userConfigHome().c_str(), id.c_str(), name.c_str(), nullptr);
  std::string result(path);
  g_free(path);
  return result;
}

PXValue PreferencesStore::deepImmutableCopy(const PXValue& value) {
  return copyValue(value, 0);
}

std::shared_ptr<PreferencesStore> PreferencesStore::forPath(const std::string& path) {
  static std::mutex mutex;
  static auto* stores =
      new std::unordered_map<std::string, std::shared_ptr<PreferencesStore>>();  // never freed
  std::lock_guard lock(mutex);
  auto& store = (*stores)[path];
  if (!store) store = std::make_shared<PreferencesStore>(path);
  return store;
}

PreferencesStore::PreferencesStore(std::string path)
    : path_(std::move(path)), pending_(PXMutableDictionary::dictionary()) {
  std::string bytes;
  bool exists = false, ok = false;
  PXRef<PXDictionary> values;
  if (readWholeFile(path_, &bytes, &exists)) values = parse(bytes, &ok);
  if (ok) {
    disk_ = values;
    lastBytes_ = std::move(bytes);
  } else {
    disk_ = PXDictionary::dictionary();
  }
  visible_ = disk_->mutableCopyDictionary();
}

PXRef<PXDictionary> PreferencesStore::parse(const std::string& bytes, bool* ok) {
  *ok = true;
  if (bytes.empty()) return PXDictionary::dictionary();
  PXValue root = PXPropertyList::propertyListWithString(bytes);
  if (PXRef<PXDictionary> dict = root.dictionaryValue()) return dict;
  *ok = false;
  return {};
}

PXValue PreferencesStore::objectForKey(std::string_view key) const {
  std::lock_guard lock(mutex_);
  const PXValue* v = visible_->findStringKey(key);
  return v ? *v : PXValue();
}

PXRef<PXDictionary> PreferencesStore::dictionaryRepresentation() const {
  std::lock_guard lock(mutex_);
  return visible_->copyDictionary();
}

void PreferencesStore::setObject(const PXValue& value, std::string_view key) {
  std::lock_guard lock(mutex_);
  pending_->setObject(value.isAbsent() ? PXValue::null() : value, PXValue(key));
  if (value.isAbsent()) {
    visible_->removeObjectForKey(PXValue(key));
  } else {
    visible_->setObject(value, PXValue(key));
  }
}

bool PreferencesStore::hasPendingChanges() const {
  std::lock_guard lock(mutex_);
  return pending_->count() > 0;
}

PXRef<PXMutableDictionary> PreferencesStore::mergedLocked(const PXDictionary& disk) const {
  PXRef<PXMutableDictionary> merged = disk.mutableCopyDictionary();
  for (const auto& [key, value] : *pending_) {
    if (isRemoval(value)) {
      merged->removeObjectForKey(key);
    } else {
      merged->setObject(value, key);
    }
  }
  return merged;
}

std::vector<std::string> PreferencesStore::differingKeys(const PXDictionary& a, const PXDictionary& b) {
  std::vector<std::string> keys;
  for (const auto& [key, value] : a) {
    const PXValue* other = b.find(key);
    if (!other || !other->isEqual(value)) keys.emplace_back(key.stringValue());
  }
  for (const auto& [key, value] : b) {
    if (!a.find(key)) keys.emplace_back(key.stringValue());
  }
  return keys;
}

std::optional<PreferencesDiskState> PreferencesStore::readIfChanged() const {
  PreferencesDiskState state;
  for (bool current = false; !current;) {
    {
      std::lock_guard lock(mutex_);
      state.generation = generation_;
    }
    bool exists = false;
    if (!readWholeFile(path_, &state.bytes, &exists)) return std::nullopt;
    // An empty file that exists is one being written in place (truncated, not yet
    // filled): wait for its content rather than announce every key removed.
    if (exists && state.bytes.empty()) return std::nullopt;
    std::lock_guard lock(mutex_);
    // A synchronize of another thread may have written the file since it was
    // read here: those bytes could be older than what the store now holds,
    // and would announce its own keys as changed. Read again.
    current = state.generation == generation_;
    if (current && state.bytes == lastBytes_) return std::nullopt;
  }
  bool ok = false;
  state.values = parse(state.bytes, &ok);
  if (!ok) return std::nullopt;
  return state;
}

std::vector<std::string> PreferencesStore::keysChangedBy(const PreferencesDiskState& state) const {
  std::lock_guard lock(mutex_);
  // Overtaken by a synchronize or another reload: adopt() refuses it, and the
  // newer content has been announced by whoever brought it in.
  if (state.generation != generation_) return {};
  return differingKeys(*visible_, *mergedLocked(*state.values));
}

bool PreferencesStore::adopt(const PreferencesDiskState& state) {
  std::lock_guard lock(mutex_);
  if (state.generation != generation_) return false;
  disk_ = state.values;
  lastBytes_ = state.bytes;
  visible_ = mergedLocked(*disk_);
  ++generation_;
  return true;
}

bool PreferencesStore::synchronize(std::vector<std::string>* lateKeys, PXErrorRef* error) {
  std::lock_guard sync(syncMutex_);
  FileLock fileLock(lockPathFor(path_), error);
  if (!fileLock.locked()) return false;
  // Holding the lock, no write is in progress: any temporary is a dead writer's.
  removeStaleTemporaries(path_);

  std::string bytes;
  bool exists = false, ok = false;
  if (!readWholeFile(path_, &bytes, &exists, error)) return false;
  // A file that exists but is empty or no property list is being rewritten in
  // place by someone who does not take the lock (an editor), or is damaged:
  // build on what was last read instead, and take nothing from it.
  PXRef<PXDictionary> disk = parse(bytes, &ok);
  const bool unreadable = exists && (bytes.empty() || !ok);

  PXRef<PXDictionary> written;  // the pending changes this write carries
  PXRef<PXMutableDictionary> merged;
  {
    std::lock_guard lock(mutex_);
    written = pending_->copyDictionary();
    if (unreadable) {
      if (written->count() == 0) return true;  // nothing to write, nothing to learn
      disk = disk_;
    }
    merged = mergedLocked(*disk);
    if (lateKeys && !unreadable && bytes != lastBytes_) *lateKeys = differingKeys(*visible_, *merged);
  }

  std::string text = bytes;
  if (written->count() > 0) {
    PXErrorRef writeError;
    text = PXPropertyList::XMLStringWithPropertyList(PXValue(merged), &writeError);
    if (text.empty()) {
      PXSetError(error, writeError);
      return false;
    }
    if (text != bytes && !writeFileAtomically(path_, text, error)) {
      if (lateKeys) lateKeys->clear();
      return false;
    }
  }

  std::lock_guard lock(mutex_);
  // Changes made while the file was being written stay pending for the next time.
  for (const auto& [key, value] : *written) {
    const PXValue* now = pending_->find(key);
    if (now && now->isIdenticalTo(value)) pending_->removeObjectForKey(key);
  }
  disk_ = merged->copyDictionary();
  lastBytes_ = std::move(text);
  visible_ = mergedLocked(*disk_);
  ++generation_;
  return true;
}

}  // namespace pxkit::internal
