// The schema and SQL shared by both stores, and the choice between them.
#include "CollectorStore.h"

namespace pxcollector {

bool isPostgreSQLURI(std::string_view db) {
  return db.starts_with("postgresql://") || db.starts_with("postgres://");
}

std::unique_ptr<CollectorStore> openCollectorStore(const std::string& db, std::string* error) {
  return isPostgreSQLURI(db) ? openPostgreSQLStore(db, error) : openSQLiteStore(db, error);
}

namespace sql {

// Days are stored as numbers (days since 1970-01-01 UTC) computed by the
// collector, so that neither database's date functions are needed and both run
// the same queries. Absent qualifiers are stored as ''.
const char* const kSchema[] = {
    "CREATE TABLE IF NOT EXISTS papercuts ("
    " package_id TEXT PRIMARY KEY,"
    " application_id TEXT NOT NULL,"
    " application_version TEXT NOT NULL,"
    " channel TEXT NOT NULL,"
    " timestamp BIGINT NOT NULL,"
    " day BIGINT NOT NULL,"
    " total_usage_days BIGINT NOT NULL,"
    " record TEXT NOT NULL)",
    "CREATE INDEX IF NOT EXISTS papercuts_by_day ON papercuts (day)",
    "CREATE TABLE IF NOT EXISTS data_sets ("
    " package_id TEXT NOT NULL REFERENCES papercuts (package_id),"
    " position BIGINT NOT NULL,"
    " identifier TEXT NOT NULL,"
    " primary_value TEXT NOT NULL,"
    " secondary_value TEXT NOT NULL,"
    " value BIGINT NOT NULL,"
    " PRIMARY KEY (package_id, position))",
    "CREATE INDEX IF NOT EXISTS data_sets_by_identifier ON data_sets (identifier)",
    "CREATE TABLE IF NOT EXISTS rejected ("
    " rejection_key TEXT PRIMARY KEY,"
    " package_id TEXT NOT NULL,"
    " reason TEXT NOT NULL,"
    " record TEXT NOT NULL,"
    " received_at BIGINT NOT NULL)",
};
const size_t kSchemaCount = sizeof kSchema / sizeof kSchema[0];

const char* const kInsertPapercut =
    "INSERT INTO papercuts (package_id, application_id, application_version, channel, timestamp, day,"
    " total_usage_days, record) VALUES ($1, $2, $3, $4, $5, $6, $7, $8)"
    " ON CONFLICT (package_id) DO NOTHING RETURNING package_id";
const char* const kInsertDataSet =
    "INSERT INTO data_sets (package_id, position, identifier, primary_value, secondary_value, value)"
    " VALUES ($1, $2, $3, $4, $5, $6)";
const char* const kInsertRejected =
    "INSERT INTO rejected (rejection_key, package_id, reason, record, received_at) VALUES ($1, $2, $3, $4, "
    "$5)"
    " ON CONFLICT (rejection_key) DO NOTHING";
const char* const kMetricDailySums =
    "SELECT p.day, d.primary_value, d.secondary_value, CAST(SUM(d.value) AS BIGINT)"
    " FROM data_sets d JOIN papercuts p ON p.package_id = d.package_id"
    " WHERE d.identifier = $1 AND p.day >= $2 AND p.day <= $3"
    " GROUP BY p.day, d.primary_value, d.secondary_value"
    " ORDER BY p.day, d.primary_value, d.secondary_value";
const char* const kCountPapercuts = "SELECT COUNT(*) FROM papercuts";
const char* const kCountRejected = "SELECT COUNT(*) FROM rejected";
const char* const kApplications =
    "SELECT application_id, '', COUNT(*) FROM papercuts GROUP BY application_id ORDER BY application_id";
const char* const kVersions =
    "SELECT application_id, application_version, COUNT(*) FROM papercuts"
    " GROUP BY application_id, application_version ORDER BY application_id, application_version";
const char* const kChannels = "SELECT channel, '', COUNT(*) FROM papercuts GROUP BY channel ORDER BY channel";
const char* const kOSVersions =
    "SELECT secondary_value, '', COUNT(DISTINCT package_id) FROM data_sets WHERE identifier = "
    "'common.osversion'"
    " GROUP BY secondary_value ORDER BY secondary_value";
const char* const kPapercutsPerDay = "SELECT day, COUNT(*) FROM papercuts GROUP BY day ORDER BY day";
const char* const kHasPapercut = "SELECT 1 FROM papercuts WHERE package_id = $1";
const char* const kRejectedReason = "SELECT reason FROM rejected WHERE rejection_key = $1";

}  // namespace sql
}  // namespace pxcollector
