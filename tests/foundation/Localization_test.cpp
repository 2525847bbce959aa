#include "foundation/internal/Localization.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

namespace {

// Every test in this executable reads the catalogs compiled into the build tree,
// unless the run names another directory.
const bool kBuildCatalogsUsed = setenv("PXKIT_LOCALEDIR", PXKIT_TEST_LOCALEDIR, /*overwrite=*/0) == 0;

using pxkit::internal::LocalizedStringTable;
using pxkit::internal::MessageCatalog;

// Builds the bytes of a .mo file holding `entries` (sorted by the caller), in
// little-endian or big-endian order.
std::string makeMo(const std::vector<std::pair<std::string, std::string>>& entries, bool bigEndian = false,
                   uint32_t revision = 0) {
  std::string out;
  auto word = [&](uint32_t w) {
    for (int i = 0; i < 4; ++i) {
      const int shift = bigEndian ? (3 - i) * 8 : i * 8;
      out.push_back(static_cast<char>((w >> shift) & 0xff));
    }
  };
  const uint32_t n = static_cast<uint32_t>(entries.size());
  const uint32_t originals = 28, translations = originals + 8 * n, strings = translations + 8 * n;
  word(0x950412de);
  word(revision);
  word(n);
  word(originals);
  word(translations);
  word(0);  // no hash table
  word(strings);
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
    SCOPED_TRACE(bigEndian ? "big-endian" : "little-endian");
    auto catalog = MessageCatalog::parse(makeMo(entries, bigEndian));
    ASSERT_TRUE(catalog);
    EXPECT_EQ(catalog->size(), 3u);
    ASSERT_TRUE(catalog->find("day"));
    EXPECT_EQ(*catalog->find("day"), "Tag");
    EXPECT_EQ(*catalog->find("days"), "Tage");
    ASSERT_TRUE(catalog->find("file"));
    EXPECT_EQ(*catalog->find("file"), "Datei");
    EXPECT_FALSE(catalog->find(""));
    EXPECT_FALSE(catalog->find("empty"));
    EXPECT_FALSE(catalog->find("open"));
    EXPECT_FALSE(catalog->find("hour"));
  }

  // Malformed bytes: no catalog.
  const std::string good = makeMo({{"day", "Tag"}, {"days", "Tage"}});

  auto patched = [&](size_t at, uint32_t value) {
    std::string bytes = good;
    for (int i = 0; i < 4; ++i) bytes[at + i] = static_cast<char>((value >> (8 * i)) & 0xff);
    return bytes;
  };
  const uint32_t size = static_cast<uint32_t>(good.size());
  struct {
    const char* name;
    std::string bytes;
  } cases[] = {
      {"empty", ""},
      {"shorter than the header", good.substr(0, 27)},
      {"wrong magic", patched(0, 0x12345678)},
      {"unknown major revision", makeMo({{"day", "Tag"}}, false, 0x20000)},
      {"more entries than the file holds", patched(8, 0x10000000)},
      {"original table past the end", patched(12, size)},
      {"translation table past the end", patched(16, size - 4)},
      {"string offset past the end", patched(32, size + 10)},
      {"string length past the end", patched(28, 1000)},
      {"string without its NUL", patched(28, 4)},  // "day" claimed 4 long: byte 4 is "d" of "days"
      {"truncated strings", good.substr(0, good.size() - 3)},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_FALSE(MessageCatalog::parse(c.bytes));
  }
  // Revision 1 (minor revisions) shares the layout.
  EXPECT_TRUE(MessageCatalog::parse(makeMo({{"day", "Tag"}}, false, 0x10001)));
}

TEST(Localization, EveryShippedCatalogTranslatesEveryUnitWord) {
  ASSERT_TRUE(kBuildCatalogsUsed);
  const char* localeDir = std::getenv("PXKIT_LOCALEDIR");
  std::vector<std::string> languages;
  for (const auto& entry : std::filesystem::directory_iterator(PXKIT_TEST_PO_DIR))
    if (entry.path().extension() == ".po") languages.push_back(entry.path().stem().string());
  for (const char* required : {"de", "fr", "es", "it", "pt", "nl", "ja", "zh_CN"}) {
    EXPECT_NE(std::find(languages.begin(), languages.end(), required), languages.end()) << required;
  }

  for (const std::string& language : languages) {
    SCOPED_TRACE(language);
    auto catalog = MessageCatalog::load(std::string(localeDir) + "/" + language + "/LC_MESSAGES/pxkit.mo");
    ASSERT_TRUE(catalog);
    for (const char* key :
         {"year", "years", "day", "days", "hour", "hours", "minute", "minutes", "second", "seconds"}) {
      EXPECT_TRUE(catalog->find(key)) << key;
    }
  }
}

TEST(Localization, TableLanguageFollowsThePreferredLanguages) {
  unsetenv("LC_ALL");
  unsetenv("LC_MESSAGES");
  setenv("LANG", "C.UTF-8", 1);
  struct {
    const char* preferred;
    const char* language;  // "" for the English keys
  } cases[] = {
      {"de_AT.UTF-8", "de"}, {"pt_BR", "pt"},   {"zh_CN.UTF-8", "zh_CN"},
      {"xx:yy:ja", "ja"},    {"en_US:fr", ""},  {"C", ""},
      {"zh_SG", ""},         {"it@euro", "it"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.preferred);
    setenv("LANGUAGE", c.preferred, 1);
    EXPECT_EQ(LocalizedStringTable::current().language(), c.language);
  }
  setenv("LANGUAGE", "de", 1);
  EXPECT_EQ(pxkit::internal::localizedString("hours").str(), "Stunden");
  EXPECT_EQ(pxkit::internal::localizedString("no such key").str(), "no such key");
  // Another table has its own catalogs, none shipped: its keys stand.
  EXPECT_EQ(LocalizedStringTable::current("Other").localizedString("hours").str(), "hours");
}

TEST(Localization, LocaleIdentifierFromPOSIXName) {
  struct {
    const char* posix;
    const char* identifier;
  } cases[] = {
      {"de_DE.UTF-8", "de_DE"},
      {"de_DE", "de_DE"},
      {"fr", "fr"},
      {"C", "en_US_POSIX"},
      {"C.UTF-8", "en_US_POSIX"},
      {"POSIX", "en_US_POSIX"},
      {"", "en_US_POSIX"},
      {"sr_RS@latin", "sr_Latn_RS"},
      {"uz_UZ.UTF-8@cyrillic", "uz_Cyrl_UZ"},
      {"de_DE@euro", "de_DE"},
      {"ca_ES.UTF-8@valencia", "ca_ES"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(pxkit::internal::localeIdentifierFromPOSIXName(c.posix), c.identifier) << c.posix;
  }

  setenv("LANG", "fr_FR.UTF-8", 1);
  unsetenv("LC_ALL");
  setenv("LC_TIME", "de_DE.UTF-8", 1);
  EXPECT_EQ(pxkit::internal::currentLocaleIdentifier("LC_TIME"), "de_DE");
  EXPECT_EQ(pxkit::internal::currentLocaleIdentifier("LC_MESSAGES"), "fr_FR");
  setenv("LC_ALL", "ja_JP.UTF-8", 1);
  EXPECT_EQ(pxkit::internal::currentLocaleIdentifier("LC_TIME"), "ja_JP");
}

}  // namespace
