#include "foundation/internal/Localization.h"

#include <dlfcn.h>
#include <glib.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <mutex>

// Where the build installs the catalogs; set on this file by the build.
#ifndef PXKIT_INSTALL_LOCALEDIR
#define PXKIT_INSTALL_LOCALEDIR "/usr/local/share/locale"
#endif
// The installed locale dir relative to the installed library's directory.
#ifndef PXKIT_LOCALEDIR_FROM_LIBDIR
#define PXKIT_LOCALEDIR_FROM_LIBDIR "../share/locale"
#endif

namespace pxkit::internal {
namespace {

// ---- .mo reading -----------------------------------------------------------

constexpr uint32_t kMoMagic = 0x950412de;
constexpr uint32_t kMoMagicSwapped = 0xde120495;
constexpr size_t kMoHeaderBytes = 28;  // magic, revision, count, two table offsets, hash size, hash offset

// Reads the bytes of a .mo file with bounds checks; any failure marks the reader bad.
class MoReader {
 public:
  MoReader(std::string_view bytes, bool swapped) : bytes_(bytes), swapped_(swapped) {}

  uint32_t word(size_t offset) {
    if (offset > bytes_.size() || bytes_.size() - offset < 4) {
      ok_ = false;
      return 0;
    }
    uint32_t w;
    std::memcpy(&w, bytes_.data() + offset, 4);
    return swapped_ ? __builtin_bswap32(w) : w;
  }
  // String `index` of the table at `tableOffset`: (length, offset) pairs, the
  // text followed by a NUL that the length leaves out.
  std::string_view string(uint32_t tableOffset, uint32_t index) {
    const size_t entry = size_t(tableOffset) + size_t(index) * 8;
    const uint32_t length = word(entry);
    const uint32_t offset = word(entry + 4);
    if (!ok_ || offset > bytes_.size() || bytes_.size() - offset <= length ||
        bytes_[offset + length] != '\0') {
      ok_ = false;
      return {};
    }
    return bytes_.substr(offset, length);
  }
  bool ok() const noexcept { return ok_; }

 private:
  std::string_view bytes_;
  bool swapped_;
  bool ok_ = true;
};

// ---- catalog cache ---------------------------------------------------------

struct ResolvedTable {
  std::string language;
  std::shared_ptr<const MessageCatalog> catalog;
};

std::mutex gCacheMutex;
// Catalog files by path; null for files that are missing or malformed.
std::unordered_map<std::string, std::shared_ptr<const MessageCatalog>> gCatalogs;
// Resolutions by (directories, table, language names).
std::unordered_map<std::string, ResolvedTable> gResolutions;

std::shared_ptr<const MessageCatalog> cachedCatalog(const std::string& path) {
  // Called with gCacheMutex held.
  auto it = gCatalogs.find(path);
  if (it == gCatalogs.end()) it = gCatalogs.emplace(path, MessageCatalog::load(path)).first;
  return it->second;
}

bool isEnglishOrC(std::string_view name) {
  if (name == "C" || name == "POSIX") return true;
  return name.size() >= 2 && name.substr(0, 2) == "en" &&
         (name.size() == 2 || name[2] == '_' || name[2] == '.' || name[2] == '@');
}

std::string directoryOfThisLibrary() {
  Dl_info info{};
  if (dladdr(reinterpret_cast<void*>(&localeDirectories), &info) == 0 || !info.dli_fname) return {};
  std::string path = info.dli_fname;
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? std::string() : path.substr(0, slash);
}

}  // namespace

// ---- MessageCatalog --------------------------------------------------------

std::shared_ptr<const MessageCatalog> MessageCatalog::parse(std::string_view bytes) {
  if (bytes.size() < kMoHeaderBytes) return nullptr;
  uint32_t magic;
  std::memcpy(&magic, bytes.data(), 4);
  if (magic != kMoMagic && magic != kMoMagicSwapped) return nullptr;
  MoReader reader(bytes, magic == kMoMagicSwapped);
  const uint32_t revision = reader.word(4);
  const uint32_t count = reader.word(8);
  const uint32_t originals = reader.word(12);
  const uint32_t translations = reader.word(16);
  // Major revisions 0 and 1 share this layout.
  if ((revision >> 16) > 1) return nullptr;
  // Each entry takes at least 8 bytes in each table: a count the file cannot hold is malformed.
  if (count > bytes.size() / 16) return nullptr;

  auto catalog = std::make_shared<MessageCatalog>();
  catalog->entries_.reserve(count);
  for (uint32_t i = 0; i < count; ++i) {
    std::string_view key = reader.string(originals, i);
    std::string_view text = reader.string(translations, i);
    if (!reader.ok()) return nullptr;
    // Plural entries hold "singular\0plural" and "form0\0form1...".
    key = key.substr(0, key.find('\0'));
    text = text.substr(0, text.find('\0'));
    // The header (empty key), entries with a context ("ctx\x04key") and empty translations are left out.
    if (key.empty() || text.empty() || key.find('\x04') != std::string_view::npos) continue;
    catalog->entries_.emplace(std::string(key), std::string(text));
  }
  return catalog;
}

std::shared_ptr<const MessageCatalog> MessageCatalog::load(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) return nullptr;
  std::string bytes;
  char buffer[16384];
  while (file.read(buffer, sizeof buffer) || file.gcount() > 0) {
    bytes.append(buffer, static_cast<size_t>(file.gcount()));
    if (bytes.size() > kMaxMessageCatalogBytes) return nullptr;
  }
  if (file.bad()) return nullptr;
  return parse(bytes);
}

const std::string* MessageCatalog::find(std::string_view key) const {
  auto it = entries_.find(key);
  return it == entries_.end() ? nullptr : &it->second;
}

// ---- LocalizedStringTable --------------------------------------------------

LocalizedStringTable LocalizedStringTable::current(std::string_view table) {
  const std::vector<std::string> directories = localeDirectories();
  const std::string domain = catalogDomainForTable(table);
  // GLib lists every preferred language with its less specific variants
  // ("de_DE.UTF-8", "de_DE", "de.UTF-8", "de", ..., "C") and re-reads the
  // environment when it changes.
  const char* const* names = g_get_language_names();

  std::string cacheKey = domain;
  for (const auto& dir : directories) cacheKey.append("\n").append(dir);
  cacheKey.append("\n");
  for (const char* const* n = names; *n; ++n) cacheKey.append("\n").append(*n);

  std::lock_guard lock(gCacheMutex);
  if (auto it = gResolutions.find(cacheKey); it != gResolutions.end()) {
    LocalizedStringTable result;
    result.language_ = it->second.language;
    result.catalog_ = it->second.catalog;
    return result;
  }

  ResolvedTable resolved;
  for (const char* const* n = names; *n; ++n) {
    const std::string_view name = *n;
    std::shared_ptr<const MessageCatalog> catalog;
    for (const auto& dir : directories) {
      std::string path = dir;
      path.append("/").append(name).append("/LC_MESSAGES/").append(domain).append(".mo");
      if ((catalog = cachedCatalog(path))) break;
    }
    if (catalog) {
      resolved = {std::string(name), std::move(catalog)};
      break;
    }
    // The keys are English: an English (or C) preference without a catalog of its own ends the search.
    if (isEnglishOrC(name)) break;
  }
  gResolutions.emplace(cacheKey, resolved);

  LocalizedStringTable result;
  result.language_ = std::move(resolved.language);
  result.catalog_ = std::move(resolved.catalog);
  return result;
}

PXString LocalizedStringTable::localizedString(std::string_view key) const {
  if (catalog_) {
    if (const std::string* text = catalog_->find(key)) return PXString(*text);
  }
  return PXString(key);
}

PXString localizedString(std::string_view key, std::string_view table) {
  return LocalizedStringTable::current(table).localizedString(key);
}

// ---- where catalogs live ---------------------------------------------------

std::vector<std::string> localeDirectories() {
  std::vector<std::string> directories;
  if (const char* env = std::getenv("PXKIT_LOCALEDIR"); env && *env) directories.emplace_back(env);
  if (std::string libdir = directoryOfThisLibrary(); !libdir.empty())
    directories.push_back(libdir + "/" + PXKIT_LOCALEDIR_FROM_LIBDIR);
  directories.emplace_back(PXKIT_INSTALL_LOCALEDIR);
  return directories;
}

std::string catalogDomainForTable(std::string_view table) {
  if (table == "Localizable") return "pxkit";
  return "pxkit-" + std::string(table);
}

// ---- the user's locale -----------------------------------------------------

std::string localeIdentifierFromPOSIXName(std::string_view name) {
  // language[_territory][.codeset][@modifier]
  std::string_view modifier;
  if (const size_t at = name.find('@'); at != std::string_view::npos) {
    modifier = name.substr(at + 1);
    name = name.substr(0, at);
  }
  if (const size_t dot = name.find('.'); dot != std::string_view::npos) name = name.substr(0, dot);
  if (name.empty() || name == "C" || name == "POSIX") return "en_US_POSIX";

  std::string id(name);
  // glibc's script modifiers become scripts; others ("euro") say nothing about formats.
  const char* script = modifier == "latin"        ? "Latn"
                       : modifier == "cyrillic"   ? "Cyrl"
                       : modifier == "devanagari" ? "Deva"
                                                  : nullptr;
  if (script) {
    const size_t underscore = id.find('_');
    const std::string language = id.substr(0, underscore);
    const std::string rest = underscore == std::string::npos ? std::string() : id.substr(underscore);
    id = language + "_" + script + rest;
  }
  return id;
}

std::string currentLocaleIdentifier(const char* category) {
  for (const char* variable : {"LC_ALL", category, "LANG"}) {
    if (const char* value = std::getenv(variable); value && *value)
      return localeIdentifierFromPOSIXName(value);
  }
  return "en_US_POSIX";
}

}  // namespace pxkit::internal
