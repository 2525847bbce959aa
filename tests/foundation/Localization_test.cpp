#include "foundation/internal/Localization.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace {

const bool kBuildCatalogsUsed = setenv("PXKIT_LOCALEDIR", PXKIT_TEST_LOCALEDIR, /*overwrite=*/0) == 0;

using pxkit::internal::LocalizedStringTable;
using pxkit::internal::MessageCatalog;

// The bytes of a .mo file holding `entries` (sorted by the caller).
std::string makeMo(const std::vector<std::pair<std::string, std::string>>& entries, bool bigEndian = false,
                   uint32_t revision = 0) {
  std::string out;
  auto word = [&](uint32_t w) {
    for (int i = 0; i < 4; ++i)
      out.push_back(static_cast<char>((w >> (bigEndian ? (3 - i) * 8 : i * 8)) & 0xff));
  };
  const uint32_t n = static_cast<uint32_t>(entries.size());
  const uint32_t originals = 28, translations = originals + 8 * n, strings = translations + 8 * n;
  for (uint32_t w : {0x950412deu, revision, n, originals, translations, 0u /* no hash table */, strings})
    word(w);
  uint32_t offset = strings;
  for (const auto& e : entries)
    word(static_cast<uint32_t>(e.first.size())), word(offset), offset += e.first.size() + 1;
  for (const auto& e : entries)
    word(static_cast<uint32_t>(e.second.size())), word(offset), offset += e.second.size() + 1;
  for (const auto& e : entries) out.append(e.first).push_back('\0');
  for (const auto& e : entries) out.append(e.second).push_back('\0');
  return out;
}

TEST(Localization, MessageCatalogReadsBothByteOrdersAndRefusesMalformedBytes) {
  const std::vector<std::pair<std::string, std::string>> entries = {
      {"", "Content-Type: text/plain; charset=UTF-8\n"},  // header: left out
      {"day", "Tag"},
      {"days", "Tage"},
      {"empty", ""},  // untranslated: left out
      {std::string("file\0files", 10),
       std::string("Datei\0Dateien", 13)},  // plural entry: singular key, first form
      {"menu\x04open", "öffnen"},           // with a context: left out
  };
  for (bool bigEndian : {false, true}) {
    auto catalog = MessageCatalog::parse(makeMo(entries, bigEndian));
    ASSERT_TRUE(catalog);
    EXPECT_EQ(catalog->size(), 3u);
    std::string found;
    for (const char* key : {"day", "days", "file", "", "empty", "open", "hour"})
      found += catalog->find(key) ? *catalog->find(key) + " " : "- ";
    EXPECT_EQ(found, "Tag Tage Datei - - - - ") << (bigEndian ? "big-endian" : "little-endian");
  }
  const std::string good = makeMo({{"day", "Tag"}, {"days", "Tage"}});
  auto patched = [&](size_t at, uint32_t value) {
    std::string bytes = good;
    for (int i = 0; i < 4; ++i) bytes[at + i] = static_cast<char>((value >> (8 * i)) & 0xff);
    return bytes;
  };
  const uint32_t size = static_cast<uint32_t>(good.size());
  const std::string malformed[] = {
      good.substr(0, 27),                        // shorter than the header
      patched(0, 0x12345678),                    // wrong magic
      makeMo({{"day", "Tag"}}, false, 0x20000),  // unknown major revision
      patched(8, 0x10000000),                    // more entries than the file holds
      patched(12, size),                         // original table past the end
      patched(16, size - 4),                     // translation table past the end
      patched(32, size + 10),                    // string offset past the end
      patched(28, 1000),                         // string length past the end
      patched(28, 4),                            // "day" claimed 4 long: no NUL after it
      good.substr(0, good.size() - 3),           // truncated strings
  };
  for (const std::string& bytes : malformed) EXPECT_FALSE(MessageCatalog::parse(bytes)) << bytes.size();
  EXPECT_FALSE(MessageCatalog::load(PXKIT_TEST_LOCALEDIR));  // a directory
}

TEST(Localization, TableLanguageFollowsThePreferredLanguages) {
  ASSERT_TRUE(kBuildCatalogsUsed);
  unsetenv("LC_ALL");
  unsetenv("LC_MESSAGES");
  setenv("LANG", "C.UTF-8", 1);
  // Preferred=language ("" for the English keys): English or C without a catalog ends the search.
  std::istringstream cases(
      "de_AT.UTF-8=de pt_BR=pt zh_CN.UTF-8=zh_CN x:ja=ja it@euro=it zh_SG= C= POSIX:de= en_US:fr= en:fr= "
      "eng:en.UTF-8:de= en@quot:de=");
  for (std::string row; cases >> row;) {
    setenv("LANGUAGE", row.substr(0, row.find('=')).c_str(), 1);
    EXPECT_EQ(LocalizedStringTable::current().language(), row.substr(row.find('=') + 1)) << row;
  }
  setenv("LANGUAGE", "de", 1);
  EXPECT_EQ(pxkit::internal::localizedString("hours").str(), "Stunden");
  // Another table has its own catalogs, none shipped: its keys stand.
  EXPECT_EQ(LocalizedStringTable::current("Other").localizedString("hours").str(), "hours");
}

TEST(Localization, LocaleIdentifierFromPOSIXName) {
  std::istringstream cases(
      "de_DE.UTF-8=de_DE fr=fr C.UTF-8=en_US_POSIX POSIX=en_US_POSIX =en_US_POSIX sr_RS@latin=sr_Latn_RS "
      "uz_UZ.UTF-8@cyrillic=uz_Cyrl_UZ sa_IN@devanagari=sa_Deva_IN sr@latin=sr_Latn de_DE@euro=de_DE");
  for (std::string row; cases >> row;) {
    const std::string posix = row.substr(0, row.find('='));
    EXPECT_EQ(pxkit::internal::localeIdentifierFromPOSIXName(posix), row.substr(row.find('=') + 1)) << row;
  }
  setenv("LANG", "fr_FR.UTF-8", 1);
  setenv("LC_ALL", "", 1);  // empty: not set
  setenv("LC_TIME", "de_DE.UTF-8", 1);
  EXPECT_EQ(pxkit::internal::currentLocaleIdentifier("LC_TIME"), "de_DE");
  EXPECT_EQ(pxkit::internal::currentLocaleIdentifier("LC_MESSAGES"), "fr_FR");
  unsetenv("LANG");
  EXPECT_EQ(pxkit::internal::currentLocaleIdentifier("LC_MESSAGES"), "en_US_POSIX");
  setenv("LC_ALL", "ja_JP.UTF-8", 1);
  EXPECT_EQ(pxkit::internal::currentLocaleIdentifier("LC_TIME"), "ja_JP");
  unsetenv("LC_ALL");
  unsetenv("LC_TIME");
}

}  // namespace
