// PXKit — preference values by scope: application, user and host.
#include <pxkit/objects/PXArray.h>
#include <pxkit/objects/PXDictionary.h>
#include <pxkit/platform/PXLog.h>
#include <pxkit/platform/PXPreferences.h>
#include <pxkit/platform/PXPropertyList.h>
#include <pxkit/platform/PXUserDefaults.h>

#include <cstdlib>
#include <string>

#include "platform/internal/AtomicFile.h"
#include "platform/internal/GLibHandles.h"
#include "platform/internal/PreferencesStore.h"
#include "platform/internal/VariantValue.h"

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
    PXErrorRef error;
    if (!pxkit::internal::readWholeFile(path, &bytes, &exists, &error)) {
      // The next source is used instead, which changes the by-host file's name.
      PXLogWithLevel(PXLogLevel::Warning, "PXPreferences: machine id unread: %@",
                     error ? error->localizedDescription() : PXString("unknown error"));
      continue;
    }
    if (bytes.size() > 4096) continue;
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
  PXErrorRef error;
  if (!pxkit::internal::readWholeFile(path, &bytes, &exists, &error)) {
    PXLogWithLevel(PXLogLevel::Warning, "PXPreferences: %@",
                   error ? error->localizedDescription() : PXString("unknown error"));
    return {};
  }
  if (!exists) return {};
  PXRef<PXDictionary> dict = PXPropertyList::propertyListWithString(bytes).dictionaryValue();
  if (!dict) {
    PXLogWithLevel(PXLogLevel::Warning, "PXPreferences: %s holds no property-list dictionary", path.c_str());
    return {};
  }
  const PXValue* v = dict->findStringKey(key);
  return v ? *v : PXValue();
}

// ---- GSettings ---------------------------------------------------------------------

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
  return pxkit::internal::valueOfVariant(value.get());
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
