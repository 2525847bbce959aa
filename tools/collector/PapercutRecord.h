// pxkit-collector — reading a submission document into papercut records.
//
// A submission is the JSON document an application posts to "/metrics/post":
// {"papercuts":[record, ...]}. Each record is checked on its own; a record that
// passes becomes a Papercut to store, one that fails becomes a RejectedRecord
// that is kept aside with the reason (and named in the receipt when it carries a
// usable "packageID", so that the sender stops resending it).
//
//   SubmissionReading reading = readSubmission(body.data(), body.size());
//   if (!reading.error.empty()) answer 400 with reading.error;
//   else store(reading.papercuts, reading.rejected);
//
// Pure functions of their input: any thread, no I/O.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace pxcollector {

// ---- Limits ------------------------------------------------------------------
// The longest "packageID" accepted (the kit sends 32 hexadecimal digits).
inline constexpr size_t kMaxPackageIDLength = 128;
// The longest text of any other string field (identifiers, versions, channel).
inline constexpr size_t kMaxTextLength = 1024;
// The most data sets one papercut may carry.
inline constexpr size_t kMaxDataSetsPerPapercut = 10000;
// Timestamps are seconds since 1970 between these bounds (inclusive):
// 1970-01-01 and 9999-12-31 23:59:59 UTC.
inline constexpr double kMinTimestamp = 0.0;
inline constexpr double kMaxTimestamp = 253402300799.0;

// One metric data set of a papercut. An absent qualifier is stored as "" (the
// kit treats an absent and an empty qualifier as the same).
struct DataSet {
  std::string identifier;
  std::string primary;
  std::string secondary;
  int64_t value = 0;
};

// One papercut record that passed every check.
struct Papercut {
  std::string packageID;
  std::string applicationID;
  std::string applicationVersion;  // "" when the record had none
  std::string channel;
  int64_t timestamp = 0;  // seconds since 1970, whole (fractions dropped toward the past)
  int64_t totalUsageDays = 0;
  std::vector<DataSet> metrics;
  std::string record;  // the record as compact JSON, kept for inspection
};

// A record that can never be accepted.
struct RejectedRecord {
  // Its identity for idempotent storage: "package:" + packageID when the record
  // had a usable one, otherwise "sha256:" + the digest of its compact JSON.
  std::string key;
  std::string packageID;  // "" when the record had no usable "packageID"
  std::string reason;     // a sentence saying what was wrong
  std::string record;     // the record as compact JSON
};

struct SubmissionReading {
  std::string error;  // non-empty: the body is not a submission document
  std::vector<Papercut> papercuts;
  std::vector<RejectedRecord> rejected;
};

// Reads a submission body (UTF-8 JSON). Fails (error set, nothing else) when the
// body is not JSON, when its top level is not an object, or when "papercuts" is
// missing or not an array. Otherwise every element of "papercuts" ends up in
// exactly one of the two lists, in document order.
SubmissionReading readSubmission(const char* body, size_t length);

// The calendar day (days since 1970-01-01 UTC) of a timestamp in seconds since 1970.
inline int64_t dayOfTimestamp(int64_t timestamp) {
  return timestamp >= 0 ? timestamp / 86400 : -((-timestamp + 86399) / 86400);
}
// "YYYY-MM-DD" of a day number, and back (-1 when `text` is not such a date).
std::string dayText(int64_t day);
int64_t dayFromText(std::string_view text);

}  // namespace pxcollector
