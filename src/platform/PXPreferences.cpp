// PXKit — preference values by scope: application, user and host.
#include <pxkit/objects/PXArray.h>
#include <pxkit/objects/PXDictionary.h>
#include <pxkit/platform/PXPreferences.h>
#include <pxkit/platform/PXPropertyList.h>
#include <pxkit/platform/PXUserDefaults.h>

#include <cstdlib>
#include <string>

#include "platform/internal/AtomicFile.h"
#include "platform/internal/GLibHandles.h"
#include "platform/internal/PreferencesStore.h"

using pxkit::internal::PreferencesStore;

const char* const kPXPreferencesCurrentApplication = "kPXPreferencesCurrentApplication";
const char* const kPXPreferencesCurrentUser = "kPXPreferencesCurrentUser";
const char* const kPXPreferencesAnyUser = "kPXPreferencesAnyUser";
const char* const kPXPreferencesCurrentHost = "kPXPreferencesCurrentHost";
const char* const kPXPreferencesAnyHost = "kPXPreferencesAnyHost";

namespace {

// ---- Scopes ----------------------------------------------------------------------

enum class Scope { Unsupported, AnyHost, CurrentHost, AnyUser };

struct ResolvedScope {
  Scope scope = Scope::Unsupported;
  std::string applicationID;
  std::string path;
};

std::string trimmed(std::string text) {
  size_t begin = text.find_first_not_of(" \t\r\n");
  if (begin == std::string::npos) return {};
  size_t end = text.find_last_not_of(" \t\r\n");
  return text.substr(begin, end - begin + 1);
}

// The machine's identity: the machine id, else the host name.
std::string machineIdentity() {
  std::vector<std::string> paths;
  if (const char* custom = std::getenv("PXKIT_MACHINE_ID_PATH"); custom && *custom) {
    paths.emplace_back(custom);
  } else {
    paths = {"/etc/machine-id", "/var/lib/dbus/machine-id"};
  }
  for (const std::string& path : paths) {
    std::string bytes;
    bool exists = false;
    if (!pxkit::internal::readWholeFile(path, &bytes, &exists) || bytes.size() > 4096) continue;
    if (std::string id = trimmed(std::move(bytes)); !id.empty()) return id;
  }
  const char* host = g_get_host_name();
  return host ? host : "";
}

// The system-wide file of an application: the first configuration directory
// that has one (/etc/xdg/<id>/<id>.plist by default).
std::string systemFilePath(const std::string& id) {
  std::string name = id + ".plist";
  std::string first;
  for (const gchar* const* dir = g_get_system_config_dirs(); dir && *dir; ++dir) {
    pxkit::glib::String path(g_build_filename(*dir, id.c_str(), name.c_str(), nullptr));
    if (first.empty()) first = path.get();
    if (g_file_test(path.get(), G_FILE_TEST_EXISTS)) return path.get();
  }
  return first;
}

bool isCurrentUser(std::string_view user) {
  if (user == kPXPreferencesCurrentUser) return true;
  const char* name = g_get_user_name();
  return name && user == name;
}

ResolvedScope resolve(std::string_view application, std::string_view user, std::string_view host) {
  ResolvedScope r;
  r.applicationID = application == kPXPreferencesCurrentApplication ? pxkit::internal::currentApplicationID()
                                                                    : std::string(application);
  if (!pxkit::internal::isUsableApplicationID(r.applicationID)) return r;
  if (isCurrentUser(user) && host == kPXPreferencesAnyHost) {
    r.scope = Scope::AnyHost;
    r.path = pxkit::internal::preferencesFilePath(r.applicationID);
  } else if (isCurrentUser(user) && host == kPXPreferencesCurrentHost) {
    std::string key = PXPreferences::hostKey(r.applicationID);
    if (key.empty()) return r;
    r.scope = Scope::CurrentHost;
    r.path = pxkit::internal::preferencesFilePath(r.applicationID, "." + key);
  } else if (user == kPXPreferencesAnyUser && host == kPXPreferencesAnyHost) {
    r.scope = Scope::AnyUser;
    r.path = systemFilePath(r.applicationID);
  }
  return r;
}

// Reads one key from a file, afresh.
PXValue valueInFile(const std::string& path, std::string_view key) {
  std::string bytes;
  bool exists = false;
  if (!pxkit::internal::readWholeFile(path, &bytes, &exists) || !exists) return {};
  PXRef<PXDictionary> dict = PXPropertyList::propertyListWithString(bytes).dictionaryValue();
  if (!dict) return {};
  const PXValue* v = dict->findStringKey(key);
  return v ? *v : PXValue();
}

// ---- GSettings ---------------------------------------------------------------------

constexpr size_t kMaxVariantDepth = 64;

PXValue valueOfVariant(GVariant* v, size_t depth) {
  if (!v || depth > kMaxVariantDepth) return {};
  switch (g_variant_classify(v)) {
    case G_VARIANT_CLASS_BOOLEAN:
      return PXValue(static_cast<bool>(g_variant_get_boolean(v)));
    case G_VARIANT_CLASS_BYTE:
      return PXValue(static_cast<long long>(g_variant_get_byte(v)));
    case G_VARIANT_CLASS_INT16:
      return PXValue(static_cast<long long>(g_variant_get_int16(v)));
    case G_VARIANT_CLASS_UINT16:
      return PXValue(static_cast<long long>(g_variant_get_uint16(v)));
    case G_VARIANT_CLASS_INT32:
      return PXValue(static_cast<long long>(g_variant_get_int32(v)));
    case G_VARIANT_CLASS_UINT32:
      return PXValue(static_cast<long long>(g_variant_get_uint32(v)));
    case G_VARIANT_CLASS_INT64:
      return PXValue(static_cast<long long>(g_variant_get_int64(v)));
    case G_VARIANT_CLASS_UINT64:
      return PXValue(static_cast<unsigned long long>(g_variant_get_uint64(v)));
    case G_VARIANT_CLASS_HANDLE:
      return PXValue(static_cast<long long>(g_variant_get_handle(v)));
    case G_VARIANT_CLASS_DOUBLE:
      return PXValue(g_variant_get_double(v));
    case G_VARIANT_CLASS_STRING:
    case G_VARIANT_CLASS_OBJECT_PATH:
    case G_VARIANT_CLASS_SIGNATURE:
      return PXValue(g_variant_get_string(v, nullptr));
    case G_VARIANT_CLASS_VARIANT: {
      pxkit::glib::Variant inner(g_variant_get_variant(v));
      return valueOfVariant(inner.get(), depth + 1);
    }
    case G_VARIANT_CLASS_MAYBE: {
      pxkit::glib::Variant inner(g_variant_get_maybe(v));
      return valueOfVariant(inner.get(), depth + 1);
    }
    case G_VARIANT_CLASS_ARRAY: {
      if (g_variant_is_of_type(v, G_VARIANT_TYPE_BYTESTRING)) {
        gsize n = 0;
        const void* bytes = g_variant_get_fixed_array(v, &n, 1);
        return PXValue(PXData::dataWithBytes(bytes, n));
      }
      const gsize n = g_variant_n_children(v);
      const bool isDictionary = g_variant_type_is_dict_entry(g_variant_type_element(g_variant_get_type(v)));
      if (isDictionary) {
        std::vector<PXDictionary::Entry> entries;
        for (gsize i = 0; i < n; ++i) {
          pxkit::glib::Variant entry(g_variant_get_child_value(v, i));
          pxkit::glib::Variant key(g_variant_get_child_value(entry.get(), 0));
          pxkit::glib::Variant value(g_variant_get_child_value(entry.get(), 1));
          PXValue k = valueOfVariant(key.get(), depth + 1), item = valueOfVariant(value.get(), depth + 1);
          if (k && item) entries.emplace_back(k.isString() ? k : PXValue(k.description()), item);
        }
        return PXValue(PXDictionary::dictionaryWithEntries(std::move(entries)));
      }
      [[fallthrough]];
    }
    case G_VARIANT_CLASS_TUPLE: {
      std::vector<PXValue> items;
      for (gsize i = 0, n = g_variant_n_children(v); i < n; ++i) {
        pxkit::glib::Variant child(g_variant_get_child_value(v, i));
        if (PXValue item = valueOfVariant(child.get(), depth + 1)) items.push_back(std::move(item));
      }
      return PXValue(PXArray::arrayWithValues(std::move(items)));
    }
    default:
      return {};
  }
}

using SchemaHandle = pxkit::glib::Handle<GSettingsSchema, g_settings_schema_unref>;

PXValue gsettingsValue(const std::string& schemaID, std::string_view key) {
  GSettingsSchemaSource* source = g_settings_schema_source_get_default();
  if (!source) return {};
  SchemaHandle schema(g_settings_schema_source_lookup(source, schemaID.c_str(), TRUE));
  std::string name(key);
  // Relocatable schemas have no path of their own: there is no value to read.
  if (!schema || !g_settings_schema_get_path(schema.get()) ||
      !g_settings_schema_has_key(schema.get(), name.c_str()))
    return {};
  pxkit::glib::Object<GSettings> settings(g_settings_new_full(schema.get(), nullptr, nullptr));
  pxkit::glib::Variant value(g_settings_get_value(settings.get(), name.c_str()));
  return valueOfVariant(value.get(), 0);
}

}  // namespace

// ---- Public operations ------------------------------------------------------------------

std::string PXPreferences::hostKey(std::string_view applicationID) {
  std::string identity = machineIdentity();
  if (identity.empty()) return {};
  pxkit::glib::String hex(g_compute_hmac_for_data(
      G_CHECKSUM_SHA256, reinterpret_cast<const guchar*>(identity.data()), identity.size(),
      reinterpret_cast<const guchar*>(applicationID.data()), applicationID.size()));
  return hex ? std::string(hex.get()) : std::string();
}

std::string PXPreferences::filePath(std::string_view applicationID, std::string_view user,
                                    std::string_view host) {
  return resolve(applicationID, user, host).path;
}

PXValue PXPreferences::copyValue(std::string_view key, std::string_view applicationID, std::string_view user,
                                 std::string_view host) {
  ResolvedScope r = resolve(applicationID, user, host);
  switch (r.scope) {
    case Scope::AnyHost:
    case Scope::CurrentHost:
      return PreferencesStore::forPath(r.path)->objectForKey(key);
    case Scope::AnyUser:
      return valueInFile(r.path, key);
    case Scope::Unsupported:
      return {};
  }
  return {};
}

bool PXPreferences::setValue(std::string_view key, const PXValue& value, std::string_view applicationID,
                             std::string_view user, std::string_view host) {
  ResolvedScope r = resolve(applicationID, user, host);
  PXValue copy;
  if (value) {
    copy = PreferencesStore::deepImmutableCopy(value);
    if (copy.isAbsent()) return false;
  }
  switch (r.scope) {
    case Scope::AnyHost:
      // Through the application's defaults object, so its observers hear of it.
      PXUserDefaults::userDefaultsForApplication(r.applicationID)->setObject(copy, key);
      return true;
    case Scope::CurrentHost:
      PreferencesStore::forPath(r.path)->setObject(copy, key);
      return true;
    case Scope::AnyUser:
    case Scope::Unsupported:
      return false;
  }
  return false;
}

bool PXPreferences::synchronize(std::string_view applicationID, std::string_view user, std::string_view host,
                                PXErrorRef* error) {
  ResolvedScope r = resolve(applicationID, user, host);
  switch (r.scope) {
    case Scope::AnyHost:
      return PXUserDefaults::userDefaultsForApplication(r.applicationID)->synchronize(error);
    case Scope::CurrentHost:
      return PreferencesStore::forPath(r.path)->synchronize(nullptr, error);
    case Scope::AnyUser:
    case Scope::Unsupported:
      break;
  }
  PXSetError(error, PXError::errorWithDomain(kPXPropertyListErrorDomain, PXPropertyListWriteInvalidError,
                                             PXString("these preferences cannot be written")));
  return false;
}

PXValue PXPreferences::copyAppValue(std::string_view key, std::string_view applicationID) {
  ResolvedScope r = resolve(applicationID, kPXPreferencesCurrentUser, kPXPreferencesAnyHost);
  if (r.scope != Scope::AnyHost) return {};
  // The host's own values as this process sees them (changes not yet written
  // included); another application's as its file holds them now.
  PXValue v = r.applicationID == pxkit::internal::currentApplicationID()
                  ? PreferencesStore::forPath(r.path)->objectForKey(key)
                  : valueInFile(r.path, key);
  if (v) return v;
  return gsettingsValue(r.applicationID, key);
}
