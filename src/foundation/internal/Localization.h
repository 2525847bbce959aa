// The kit's localised string tables and the user's locale.
//
// A string table ("Localizable") is a gettext message catalog per language,
// compiled from resources/po/<lang>.po into
//   <localedir>/<lang>/LC_MESSAGES/pxkit.mo
// and found at run time in, first to last:
//   $PXKIT_LOCALEDIR                                       (tests, relocated installs)
//   <directory of libpxkit.so>/<relative path to the installed locale dir>
//   the locale dir compiled in at configure time
// Keys are the English texts; a key without translation is its own text.
//
// The language follows the user's preferred languages (LANGUAGE, LC_ALL,
// LC_MESSAGES, LANG, as GLib lists them), first to last; the first one with a
// catalog wins. English is the keys' own language: reaching an English name (or
// "C") without finding a catalog ends the search, so "en:de" reads English.
//
// The catalogs are read with the kit's own reader, not the C library's
// gettext(): that one answers only after the host called setlocale() and only
// for locales installed on the system.
//
// Thread safety: every function may be called from any thread; loaded catalogs
// are immutable and cached for the life of the process.
#pragma once

#include <pxkit/objects/PXString.h>

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace pxkit::internal {

// The largest catalog file the reader accepts.
inline constexpr size_t kMaxMessageCatalogBytes = 4 * 1024 * 1024;

// One compiled gettext catalog (.mo): original text → translation.
class MessageCatalog {
 public:
  // Reads the bytes of a .mo file of either byte order. Null when the bytes are
  // not a well-formed catalog. The header entry (empty key), contexts and
  // untranslated entries are left out; of a plural entry only the singular key
  // and the first form are kept.
  static std::shared_ptr<const MessageCatalog> parse(std::string_view bytes);
  // Reads and parses a file; null when missing, unreadable, too large or malformed.
  static std::shared_ptr<const MessageCatalog> load(const std::string& path);

  // The translation of `key`, or null.
  const std::string* find(std::string_view key) const;
  size_t size() const noexcept { return entries_.size(); }

 private:
  struct Hash {
    using is_transparent = void;
    size_t operator()(std::string_view s) const noexcept { return std::hash<std::string_view>()(s); }
  };
  std::unordered_map<std::string, std::string, Hash, std::equal_to<>> entries_;
};

// A string table resolved for the user's current preferred languages.
class LocalizedStringTable {
 public:
  // The table `table` ("Localizable") for the languages preferred now.
  static LocalizedStringTable current(std::string_view table = "Localizable");

  // The text for `key` in the table's language; `key` itself when untranslated.
  PXString localizedString(std::string_view key) const;
  // The language name whose catalog is used ("de", "pt_BR"), "" for the keys' English.
  const std::string& language() const noexcept { return language_; }

 private:
  std::string language_;
  std::shared_ptr<const MessageCatalog> catalog_;
};

// Shorthand for LocalizedStringTable::current(table).localizedString(key).
PXString localizedString(std::string_view key, std::string_view table = "Localizable");

// The directories searched for catalogs, in order (see above); never empty.
std::vector<std::string> localeDirectories();

// The gettext domain (file stem) of a table: "pxkit" for "Localizable",
// "pxkit-<table>" for any other.
std::string catalogDomainForTable(std::string_view table);

// The user's locale for a category ("LC_TIME", "LC_MESSAGES", ...) as a locale
// identifier: the first non-empty of LC_ALL, the category, LANG, with the code
// set dropped and a script modifier turned into a script ("sr_RS@latin" gives
// "sr_Latn_RS"); "C", "POSIX" or nothing give "en_US_POSIX".
std::string currentLocaleIdentifier(const char* category);

// Turns a POSIX locale name into a locale identifier as above.
std::string localeIdentifierFromPOSIXName(std::string_view name);

}  // namespace pxkit::internal
