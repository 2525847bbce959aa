// pxkit-collector — where papercuts are kept: one small interface, two stores.
//
// The collector speaks to its database only through CollectorStore. Two stores
// implement it with the same schema and the same SQL text:
//   - SQLite (the default): one file, WAL journal, synchronous=FULL;
//   - PostgreSQL through libpq: for several stateless collectors sharing one
//     database behind a load balancer.
//
//   std::string error;
//   std::unique_ptr<CollectorStore> store = openCollectorStore("/var/lib/c/papercuts.db", &error);
//   std::vector<std::string> named;
//   if (!store || !store->storeSubmission(papercuts, rejected, &named, &error)) ...;
//
// Every statement is prepared once per connection and run with bound
// parameters; no text from a request is ever spliced into SQL.
//
// Thread safety: a store is one database connection, used by one thread at a
// time (the collector's main loop). Several processes may share one database.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "PapercutRecord.h"

namespace pxcollector {

// One row of the daily sums of a metric: one day, one primary/secondary pair.
struct MetricDailySum {
  int64_t day = 0;  // days since 1970-01-01 UTC
  std::string primary;
  std::string secondary;
  int64_t sum = 0;
};

// A label and how many papercuts carry it.
struct LabelCount {
  std::string label;
  std::string detail;  // second label where one is needed (the version of an application)
  int64_t count = 0;
};

struct DayCount {
  int64_t day = 0;
  int64_t count = 0;
};

struct CollectorSummary {
  int64_t papercuts = 0;
  int64_t rejected = 0;
  std::vector<LabelCount> applications;   // label: applicationID
  std::vector<LabelCount> versions;       // label: applicationID, detail: applicationVersion
  std::vector<LabelCount> channels;       // label: channel
  std::vector<LabelCount> osVersions;     // label: the "common.osversion" secondary (whole version)
  std::vector<DayCount> papercutsPerDay;  // by the papercut's own timestamp, oldest first
};

class CollectorStore {
 public:
  virtual ~CollectorStore() = default;

  // "SQLite" or "PostgreSQL".
  virtual const char* kind() const = 0;

  // Stores one submission in one transaction, durable when it returns true:
  // papercuts by "packageID" (a packageID already stored is left as it is, so a
  // resent papercut is a no-op), rejected records by their key. On success
  // `named` receives, each once, the packageIDs of every papercut now stored (in
  // submission order), then those of the rejected records that have one. On failure
  // nothing of the submission is stored, `named` is untouched and `error` says why.
  [[nodiscard]] virtual bool storeSubmission(std::span<const Papercut> papercuts,
                                             std::span<const RejectedRecord> rejected,
                                             std::vector<std::string>* named, std::string* error) = 0;

  // The daily sums of metric `identifier` per primary and secondary, for the days
  // `fromDay` to `toDay` inclusive, ordered by day, primary, secondary.
  [[nodiscard]] virtual bool metricDailySums(std::string_view identifier, int64_t fromDay, int64_t toDay,
                                             std::vector<MetricDailySum>* rows, std::string* error) = 0;

  // Counts for the summary and the dashboard.
  [[nodiscard]] virtual bool summary(CollectorSummary* summary, std::string* error) = 0;

  // Whether a papercut with this packageID is stored; false with `error` set on failure.
  [[nodiscard]] virtual bool hasPapercut(std::string_view packageID, bool* stored, std::string* error) = 0;

  // The reason kept for the rejected record with key `key` ("" when there is none).
  [[nodiscard]] virtual bool rejectedReason(std::string_view key, std::string* reason,
                                            std::string* error) = 0;
};

// Opens (and creates the schema of) the store named by `db`: a PostgreSQL
// connection URI ("postgresql://..." or "postgres://...") or else a SQLite file
// path (its directory is created). Null with `error` set on failure.
std::unique_ptr<CollectorStore> openCollectorStore(const std::string& db, std::string* error);
std::unique_ptr<CollectorStore> openSQLiteStore(const std::string& path, std::string* error);
std::unique_ptr<CollectorStore> openPostgreSQLStore(const std::string& uri, std::string* error);

// Whether `db` names a PostgreSQL database rather than a SQLite file.
bool isPostgreSQLURI(std::string_view db);

// ---- The shared SQL ------------------------------------------------------------
// Written once with PostgreSQL's $N parameters; the SQLite store turns "$N" into
// "?N", which SQLite reads the same way.
namespace sql {
// The schema, one statement per element; every statement is idempotent.
extern const char* const kSchema[];
extern const size_t kSchemaCount;
extern const char* const kInsertPapercut;   // $1..$8; returns the package_id when inserted
extern const char* const kInsertDataSet;    // $1..$6
extern const char* const kInsertRejected;   // $1..$5
extern const char* const kMetricDailySums;  // $1 identifier, $2 from day, $3 to day
extern const char* const kCountPapercuts;
extern const char* const kCountRejected;
extern const char* const kApplications;
extern const char* const kVersions;
extern const char* const kChannels;
extern const char* const kOSVersions;
extern const char* const kPapercutsPerDay;
extern const char* const kHasPapercut;     // $1
extern const char* const kRejectedReason;  // $1
}  // namespace sql

}  // namespace pxcollector
