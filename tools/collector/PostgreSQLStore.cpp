// The PostgreSQL store: one libpq connection per collector, statements prepared
// by name once per session, parameters sent apart from the SQL text.
#include <charconv>
#include <cstring>
#include <map>
#include <unordered_set>

#include "CollectorHandles.h"
#include "CollectorStore.h"

namespace pxcollector {
namespace {

// Taken while the schema is created, so that collectors starting together on
// one database do not race on CREATE TABLE.
constexpr const char* kSchemaLockSQL = "SELECT pg_advisory_xact_lock(8457001)";

int64_t toInt(const char* text) {
  int64_t value = 0;
  if (text) std::from_chars(text, text + strlen(text), value);
  return value;
}

class PostgreSQLStore final : public CollectorStore {
 public:
  explicit PostgreSQLStore(PGConnection conn) : conn_(std::move(conn)) {}

  const char* kind() const override { return "PostgreSQL"; }

  bool open(std::string* error) {
    if (!command("BEGIN", {}, error)) return false;
    bool ok = command(kSchemaLockSQL, {}, error);
    for (size_t i = 0; ok && i < sql::kSchemaCount; ++i) ok = command(sql::kSchema[i], {}, error);
    if (ok) return command("COMMIT", {}, error);
    std::string ignored;
    (void)command("ROLLBACK", {}, &ignored);
    return false;
  }

  bool storeSubmission(std::span<const Papercut> papercuts, std::span<const RejectedRecord> rejected,
                       std::vector<std::string>* named, std::string* error) override {
    if (!reconnectIfNeeded(error) || !command("BEGIN", {}, error)) return false;
    std::vector<std::string> ids;
    std::unordered_set<std::string> seen;
    const std::string now = std::to_string(static_cast<int64_t>(time(nullptr)));
    bool ok = true;
    for (const Papercut& p : papercuts) {
      const std::string timestamp = std::to_string(p.timestamp),
                        day = std::to_string(dayOfTimestamp(p.timestamp)),
                        usage = std::to_string(p.totalUsageDays);
      PGResult inserted =
          run(sql::kInsertPapercut,
              {p.packageID.c_str(), p.applicationID.c_str(), p.applicationVersion.c_str(), p.channel.c_str(),
               timestamp.c_str(), day.c_str(), usage.c_str(), p.record.c_str()},
              error);
      ok = inserted != nullptr;
      const bool isNew = ok && PQntuples(inserted.get()) == 1;
      for (size_t i = 0; ok && isNew && i < p.metrics.size(); ++i) {
        const DataSet& d = p.metrics[i];
        const std::string position = std::to_string(i), value = std::to_string(d.value);
        ok = command(sql::kInsertDataSet,
                     {p.packageID.c_str(), position.c_str(), d.identifier.c_str(), d.primary.c_str(),
                      d.secondary.c_str(), value.c_str()},
                     error);
      }
      if (!ok) break;
      if (seen.insert(p.packageID).second) ids.push_back(p.packageID);
    }
    for (size_t i = 0; ok && i < rejected.size(); ++i) {
      const RejectedRecord& r = rejected[i];
      ok = command(sql::kInsertRejected,
                   {r.key.c_str(), r.packageID.c_str(), r.reason.c_str(), r.record.c_str(), now.c_str()},
                   error);
      if (ok && !r.packageID.empty() && seen.insert(r.packageID).second) ids.push_back(r.packageID);
    }
    // COMMIT returns once the commit record is flushed (synchronous_commit on).
    if (ok && command("COMMIT", {}, error)) {
      *named = std::move(ids);
      return true;
    }
    std::string ignored;
    (void)command("ROLLBACK", {}, &ignored);
    return false;
  }

  bool metricDailySums(std::string_view identifier, int64_t fromDay, int64_t toDay,
                       std::vector<MetricDailySum>* rows, std::string* error) override {
    if (!reconnectIfNeeded(error)) return false;
    const std::string id(identifier), from = std::to_string(fromDay), to = std::to_string(toDay);
    PGResult result = run(sql::kMetricDailySums, {id.c_str(), from.c_str(), to.c_str()}, error);
    if (!result) return false;
    rows->clear();
    for (int r = 0; r < PQntuples(result.get()); ++r) {
      rows->push_back({toInt(PQgetvalue(result.get(), r, 0)), PQgetvalue(result.get(), r, 1),
                       PQgetvalue(result.get(), r, 2), toInt(PQgetvalue(result.get(), r, 3))});
    }
    return true;
  }

  bool summary(CollectorSummary* s, std::string* error) override {
    *s = {};
    if (!reconnectIfNeeded(error) || !count(sql::kCountPapercuts, &s->papercuts, error) ||
        !count(sql::kCountRejected, &s->rejected, error))
      return false;
    const std::pair<const char*, std::vector<LabelCount>*> lists[] = {{sql::kApplications, &s->applications},
                                                                      {sql::kVersions, &s->versions},
                                                                      {sql::kChannels, &s->channels},
                                                                      {sql::kOSVersions, &s->osVersions}};
    for (const auto& [text, list] : lists) {
      PGResult result = run(text, {}, error);
      if (!result) return false;
      for (int r = 0; r < PQntuples(result.get()); ++r) {
        list->push_back({PQgetvalue(result.get(), r, 0), PQgetvalue(result.get(), r, 1),
                         toInt(PQgetvalue(result.get(), r, 2))});
      }
    }
    PGResult days = run(sql::kPapercutsPerDay, {}, error);
    if (!days) return false;
    for (int r = 0; r < PQntuples(days.get()); ++r)
      s->papercutsPerDay.push_back(
          {toInt(PQgetvalue(days.get(), r, 0)), toInt(PQgetvalue(days.get(), r, 1))});
    return true;
  }

  bool hasPapercut(std::string_view packageID, bool* stored, std::string* error) override {
    const std::string id(packageID);
    PGResult result = run(sql::kHasPapercut, {id.c_str()}, error);
    if (!result) return false;
    *stored = PQntuples(result.get()) > 0;
    return true;
  }

  bool rejectedReason(std::string_view key, std::string* reason, std::string* error) override {
    const std::string k(key);
    PGResult result = run(sql::kRejectedReason, {k.c_str()}, error);
    if (!result) return false;
    *reason = PQntuples(result.get()) > 0 ? PQgetvalue(result.get(), 0, 0) : "";
    return true;
  }

 private:
  // Runs the statement `text` (prepared on first use in this session) with text
  // parameters; null with `error` set unless it succeeded.
  PGResult run(const char* text, std::initializer_list<const char*> params, std::string* error) {
    auto found = names_.find(text);
    if (found == names_.end()) {
      std::string name = std::to_string(names_.size());
      name.insert(name.begin(), 's');
      PGResult prepared(PQprepare(conn_.get(), name.c_str(), text, 0, nullptr));
      if (!prepared || PQresultStatus(prepared.get()) != PGRES_COMMAND_OK) {
        *error = PQerrorMessage(conn_.get());
        return nullptr;
      }
      found = names_.emplace(text, std::move(name)).first;
    }
    std::vector<const char*> values(params);
    PGResult result(PQexecPrepared(conn_.get(), found->second.c_str(), static_cast<int>(values.size()),
                                   values.data(), nullptr, nullptr, 0));
    const ExecStatusType status = result ? PQresultStatus(result.get()) : PGRES_FATAL_ERROR;
    if (status != PGRES_COMMAND_OK && status != PGRES_TUPLES_OK) {
      *error = result ? PQresultErrorMessage(result.get()) : PQerrorMessage(conn_.get());
      while (!error->empty() && error->back() == '\n') error->pop_back();
      return nullptr;
    }
    return result;
  }
  bool command(const char* text, std::initializer_list<const char*> params, std::string* error) {
    return run(text, params, error) != nullptr;
  }
  bool count(const char* text, int64_t* out, std::string* error) {
    PGResult result = run(text, {}, error);
    if (!result) return false;
    *out = PQntuples(result.get()) > 0 ? toInt(PQgetvalue(result.get(), 0, 0)) : 0;
    return true;
  }
  // A collector outlives database restarts: a broken connection is made again
  // (its prepared statements with it) before the next submission or query.
  bool reconnectIfNeeded(std::string* error) {
    if (PQstatus(conn_.get()) == CONNECTION_OK) return true;
    PQreset(conn_.get());
    names_.clear();
    if (PQstatus(conn_.get()) == CONNECTION_OK) return true;
    *error = PQerrorMessage(conn_.get());
    return false;
  }

  PGConnection conn_;
  std::map<const char*, std::string> names_;  // statement name by the address of its SQL text
};

}  // namespace

std::unique_ptr<CollectorStore> openPostgreSQLStore(const std::string& uri, std::string* error) {
  PGConnection conn(PQconnectdb(uri.c_str()));
  if (!conn || PQstatus(conn.get()) != CONNECTION_OK) {
    *error =
        "cannot connect to PostgreSQL: " + std::string(conn ? PQerrorMessage(conn.get()) : "out of memory");
    while (!error->empty() && error->back() == '\n') error->pop_back();
    return nullptr;
  }
  // Notices (such as "relation already exists, skipping") are not the collector's output.
  PQsetNoticeProcessor(
      conn.get(), [](void*, const char*) {}, nullptr);
  auto store = std::make_unique<PostgreSQLStore>(std::move(conn));
  std::string why;
  if (!store->open(&why)) {
    *error = "cannot prepare the PostgreSQL schema: " + why;
    return nullptr;
  }
  return store;
}

}  // namespace pxcollector
