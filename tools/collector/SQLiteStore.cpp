// The SQLite store: one file in WAL mode, every commit synced before it returns.
#include <filesystem>
#include <map>
#include <unordered_set>

#include "CollectorHandles.h"
#include "CollectorStore.h"

namespace pxcollector {
namespace {

// How long a writer waits for another process's write lock, in milliseconds.
constexpr int kBusyTimeoutMilliseconds = 10000;

// "$1" -> "?1": SQLite reads ?N as the N-th parameter, as PostgreSQL reads $N.
std::string sqliteText(const char* text) {
  std::string out(text);
  for (char& c : out) {
    if (c == '$') c = '?';
  }
  return out;
}

class SQLiteStore final : public CollectorStore {
 public:
  explicit SQLiteStore(SQLiteDatabase db) : db_(std::move(db)) {}

  const char* kind() const override { return "SQLite"; }

  bool open(std::string* error) {
    sqlite3_busy_timeout(db_.get(), kBusyTimeoutMilliseconds);
    // WAL lets the query API read while a submission is written; FULL syncs the
    // log at every commit, so a receipt is only sent for papercuts on disk.
    const char* setup[] = {"PRAGMA journal_mode=WAL", "PRAGMA synchronous=FULL", "PRAGMA foreign_keys=ON"};
    for (const char* text : setup) {
      if (!runOnce(text, error)) return false;
    }
    if (!runOnce("BEGIN IMMEDIATE", error)) return false;
    for (size_t i = 0; i < sql::kSchemaCount; ++i) {
      if (!runOnce(sql::kSchema[i], error)) {
        std::string ignored;
        (void)runOnce("ROLLBACK", &ignored);
        return false;
      }
    }
    return runOnce("COMMIT", error);
  }

  bool storeSubmission(std::span<const Papercut> papercuts, std::span<const RejectedRecord> rejected,
                       std::vector<std::string>* named, std::string* error) override {
    if (!step(statement("BEGIN IMMEDIATE"), error)) return false;
    std::vector<std::string> ids;
    std::unordered_set<std::string> seen;
    const int64_t now = static_cast<int64_t>(time(nullptr));
    bool ok = true;
    for (const Papercut& p : papercuts) {
      sqlite3_stmt* insert = statement(sql::kInsertPapercut);
      ok = insert && bindText(insert, 1, p.packageID) && bindText(insert, 2, p.applicationID) &&
           bindText(insert, 3, p.applicationVersion) && bindText(insert, 4, p.channel) &&
           bindInt(insert, 5, p.timestamp) && bindInt(insert, 6, dayOfTimestamp(p.timestamp)) &&
           bindInt(insert, 7, p.totalUsageDays) && bindText(insert, 8, p.record);
      bool inserted = false;
      ok = ok && step(insert, error, &inserted);
      for (size_t i = 0; ok && inserted && i < p.metrics.size(); ++i) {
        const DataSet& d = p.metrics[i];
        sqlite3_stmt* set = statement(sql::kInsertDataSet);
        ok = set && bindText(set, 1, p.packageID) && bindInt(set, 2, static_cast<int64_t>(i)) &&
             bindText(set, 3, d.identifier) && bindText(set, 4, d.primary) && bindText(set, 5, d.secondary) &&
             bindInt(set, 6, d.value) && step(set, error);
      }
      if (!ok) break;
      if (seen.insert(p.packageID).second) ids.push_back(p.packageID);
    }
    for (size_t i = 0; ok && i < rejected.size(); ++i) {
      const RejectedRecord& r = rejected[i];
      sqlite3_stmt* insert = statement(sql::kInsertRejected);
      ok = insert && bindText(insert, 1, r.key) && bindText(insert, 2, r.packageID) &&
           bindText(insert, 3, r.reason) && bindText(insert, 4, r.record) && bindInt(insert, 5, now) &&
           step(insert, error);
      if (ok && !r.packageID.empty() && seen.insert(r.packageID).second) ids.push_back(r.packageID);
    }
    if (ok && step(statement("COMMIT"), error)) {
      *named = std::move(ids);
      return true;
    }
    if (error->empty()) *error = sqlite3_errmsg(db_.get());
    std::string ignored;
    (void)step(statement("ROLLBACK"), &ignored);
    return false;
  }

  bool metricDailySums(std::string_view identifier, int64_t fromDay, int64_t toDay,
                       std::vector<MetricDailySum>* rows, std::string* error) override {
    sqlite3_stmt* query = statement(sql::kMetricDailySums);
    if (!query || !bindText(query, 1, identifier) || !bindInt(query, 2, fromDay) || !bindInt(query, 3, toDay))
      return fail(error);
    rows->clear();
    return each(query, error, [&] {
      rows->push_back({sqlite3_column_int64(query, 0), columnText(query, 1), columnText(query, 2),
                       sqlite3_column_int64(query, 3)});
    });
  }

  bool summary(CollectorSummary* s, std::string* error) override {
    *s = {};
    if (!count(sql::kCountPapercuts, &s->papercuts, error) ||
        !count(sql::kCountRejected, &s->rejected, error))
      return false;
    const std::pair<const char*, std::vector<LabelCount>*> lists[] = {{sql::kApplications, &s->applications},
                                                                      {sql::kVersions, &s->versions},
                                                                      {sql::kChannels, &s->channels},
                                                                      {sql::kOSVersions, &s->osVersions}};
    for (const auto& entry : lists) {
      sqlite3_stmt* query = statement(entry.first);
      if (!query) return fail(error);
      std::vector<LabelCount>* list = entry.second;
      if (!each(query, error, [&] {
            list->push_back({columnText(query, 0), columnText(query, 1), sqlite3_column_int64(query, 2)});
          }))
        return false;
    }
    sqlite3_stmt* days = statement(sql::kPapercutsPerDay);
    if (!days) return fail(error);
    return each(days, error, [&] {
      s->papercutsPerDay.push_back({sqlite3_column_int64(days, 0), sqlite3_column_int64(days, 1)});
    });
  }

  bool hasPapercut(std::string_view packageID, bool* stored, std::string* error) override {
    sqlite3_stmt* query = statement(sql::kHasPapercut);
    if (!query || !bindText(query, 1, packageID)) return fail(error);
    *stored = false;
    return each(query, error, [&] { *stored = true; });
  }

  bool rejectedReason(std::string_view key, std::string* reason, std::string* error) override {
    sqlite3_stmt* query = statement(sql::kRejectedReason);
    if (!query || !bindText(query, 1, key)) return fail(error);
    reason->clear();
    return each(query, error, [&] { *reason = columnText(query, 0); });
  }

 private:
  // The prepared statement for `text`, reset and unbound; null on failure.
  sqlite3_stmt* statement(const char* text) {
    auto found = statements_.find(text);
    if (found == statements_.end()) {
      sqlite3_stmt* raw = nullptr;
      const std::string converted = sqliteText(text);
      if (sqlite3_prepare_v3(db_.get(), converted.c_str(), -1, SQLITE_PREPARE_PERSISTENT, &raw, nullptr) !=
          SQLITE_OK)
        return nullptr;
      found = statements_.emplace(text, SQLiteStatement(raw)).first;
    }
    sqlite3_stmt* s = found->second.get();
    sqlite3_reset(s);
    sqlite3_clear_bindings(s);
    return s;
  }

  bool runOnce(const char* text, std::string* error) {
    sqlite3_stmt* raw = nullptr;
    if (sqlite3_prepare_v2(db_.get(), text, -1, &raw, nullptr) != SQLITE_OK) return fail(error);
    SQLiteStatement owned(raw);
    int rc;
    while ((rc = sqlite3_step(raw)) == SQLITE_ROW) {
    }
    return rc == SQLITE_DONE || fail(error);
  }

  // Steps a statement that returns at most one row; `gotRow` says whether it did.
  bool step(sqlite3_stmt* s, std::string* error, bool* gotRow = nullptr) {
    if (!s) return fail(error);
    int rc = sqlite3_step(s);
    if (gotRow) *gotRow = rc == SQLITE_ROW;
    while (rc == SQLITE_ROW) rc = sqlite3_step(s);
    const bool done = rc == SQLITE_DONE;
    if (!done) fail(error);
    sqlite3_reset(s);
    return done;
  }

  template <class Row>
  bool each(sqlite3_stmt* s, std::string* error, Row row) {
    int rc;
    while ((rc = sqlite3_step(s)) == SQLITE_ROW) row();
    const bool done = rc == SQLITE_DONE;
    if (!done) fail(error);
    sqlite3_reset(s);
    return done;
  }

  bool count(const char* text, int64_t* out, std::string* error) {
    sqlite3_stmt* query = statement(text);
    if (!query) return fail(error);
    return each(query, error, [&] { *out = sqlite3_column_int64(query, 0); });
  }

  static bool bindText(sqlite3_stmt* s, int index, std::string_view text) {
    return sqlite3_bind_text64(s, index, text.data(), text.size(), SQLITE_TRANSIENT, SQLITE_UTF8) ==
           SQLITE_OK;
  }
  static bool bindInt(sqlite3_stmt* s, int index, int64_t value) {
    return sqlite3_bind_int64(s, index, value) == SQLITE_OK;
  }
  static std::string columnText(sqlite3_stmt* s, int column) {
    const unsigned char* text = sqlite3_column_text(s, column);
    return text ? std::string(reinterpret_cast<const char*>(text),
                              static_cast<size_t>(sqlite3_column_bytes(s, column)))
                : std::string();
  }
  bool fail(std::string* error) {
    if (error) *error = sqlite3_errmsg(db_.get());
    return false;
  }

  SQLiteDatabase db_;
  std::map<const char*, SQLiteStatement> statements_;  // by the address of the shared SQL text
};

}  // namespace

std::unique_ptr<CollectorStore> openSQLiteStore(const std::string& path, std::string* error) {
  std::error_code ec;
  const std::filesystem::path parent = std::filesystem::path(path).parent_path();
  if (!parent.empty()) std::filesystem::create_directories(parent, ec);
  sqlite3* raw = nullptr;
  const int rc = sqlite3_open_v2(path.c_str(), &raw,
                                 SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, nullptr);
  SQLiteDatabase db(raw);
  if (rc != SQLITE_OK) {
    *error = "cannot open " + path + ": " + (raw ? sqlite3_errmsg(raw) : sqlite3_errstr(rc));
    return nullptr;
  }
  auto store = std::make_unique<SQLiteStore>(std::move(db));
  std::string why;
  if (!store->open(&why)) {
    *error = "cannot prepare " + path + ": " + why;
    return nullptr;
  }
  return store;
}

}  // namespace pxcollector
