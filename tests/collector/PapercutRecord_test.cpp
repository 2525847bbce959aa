// Reading submission documents: which records are accepted, why the others are
// refused, and which bodies are no submission at all.
#include "PapercutRecord.h"

#include <gtest/gtest.h>

#include <string>

#include "CollectorTestSupport.h"

namespace pxcollector {
namespace {

SubmissionReading read(const std::string& body) {
  return readSubmission(body.data(), body.size());
}

// A record of the kit's shape with `field` replaced by `json` (or removed when `json` is empty).
std::string recordWith(const std::string& field, const std::string& json) {
  std::string fields[][2] = {{"packageID", "\"0123456789abcdef0123456789abcdef\""},
                             {"applicationID", "\"org.example.Editor\""},
                             {"metrics", "[{\"identifier\":\"common.launches\",\"value\":2}]"},
                             {"totalUsageDays", "4"},
                             {"timestamp", "1764000000.0"},
                             {"channel", "\"default\""},
                             {"applicationVersion", "\"1.2\""}};
  std::string text = "{";
  bool first = true;
  for (auto& [key, value] : fields) {
    const std::string v = key == field ? json : value;
    if (v.empty()) continue;
    text += (first ? "\"" : ",\"") + key + "\":" + v;
    first = false;
  }
  return text + "}";
}

TEST(PapercutRecord, EachRecordIsAcceptedOrRejectedWithItsReasonAndBadBodiesWhole) {
  const auto text = [](size_t length) { return "\"" + std::string(length, 'a') + "\""; };
  const auto dataSets = [](size_t count) {
    std::string sets = "[";
    for (size_t i = 0; i < count; ++i)
      sets += std::string(i ? "," : "") + "{\"identifier\":\"m\",\"value\":1}";
    return sets + "]";
  };
  const struct {
    std::string field;
    std::string json;
    const char* reason;  // nullptr: accepted
  } rows[] = {
      {"", "", nullptr},
      {"applicationVersion", "", nullptr},  // the kit leaves it out when the host has none
      {"packageID", "", "\"packageID\" is missing"},
      {"packageID", "\"\"", "\"packageID\" is empty"},
      {"timestamp", "\"1764000000\"", "\"timestamp\" is not a number"},
      {"timestamp", "-1", "\"timestamp\" is out of range"},
      {"totalUsageDays", "1.5", "\"totalUsageDays\" is not a non-negative integer"},
      {"metrics", "", "\"metrics\" is missing"},
      {"metrics", "[{\"value\":1}]", "\"metrics\"[0]: \"identifier\" is missing"},
      {"metrics", "[{\"identifier\":\"a\",\"value\":9223372036854775808}]", "\"value\" is not an integer"},
      {"metrics", "[{\"identifier\":\"a\",\"value\":-9223372036854775808}]", nullptr},
      {"metrics", "[{\"identifier\":\"a\",\"primary\":7,\"value\":1}]", "\"primary\" is not a string"},
      {"metrics", "[{\"identifier\":\"a\\u0000b\",\"value\":1}]", "contains a NUL character"},
      {"channel", text(kMaxTextLength + 1), "\"channel\" is longer than 1024 bytes"},
      {"packageID", text(kMaxPackageIDLength), nullptr},
      {"packageID", text(kMaxPackageIDLength + 1), "\"packageID\" is longer than 128 bytes"},
      {"metrics", dataSets(kMaxDataSetsPerPapercut), nullptr},
      {"metrics", dataSets(kMaxDataSetsPerPapercut + 1), "\"metrics\" has more than 10000 data sets"},
      {"timestamp", "253402300799.0", nullptr},
      {"timestamp", "253402300800.0", "\"timestamp\" is out of range"},
  };
  for (const auto& row : rows) {
    SubmissionReading r = read(submissionJSON({recordWith(row.field, row.json)}));
    ASSERT_EQ(r.papercuts.size() + r.rejected.size(), 1u) << r.error;
    const std::string reason = r.rejected.empty() ? "(accepted)" : r.rejected[0].reason;
    EXPECT_NE(reason.find(row.reason ? row.reason : "(accepted)"), std::string::npos)
        << row.field << ": " << reason;
  }
  // Bodies that are no submission are refused whole.
  const std::pair<std::string, const char*> bodies[] = {
      {submissionJSON({}) + "x", "the body is not JSON: "},
      {"[" + papercutJSON("a") + "]",
       "the body is not a submission document: its top level is not an object"},
      {"{\"papercut\":[]}",
       "the body is not a submission document: \"papercuts\" is missing or not an array"},
  };
  for (const auto& [body, says] : bodies) {
    SubmissionReading r = read(body);
    EXPECT_EQ(r.error.substr(0, std::string(says).size()), says) << body;
    EXPECT_TRUE(r.papercuts.empty() && r.rejected.empty()) << body;
  }
}

TEST(PapercutRecord, DaysAreCalendarDaysInUTC) {
  const std::pair<int64_t, const char*> rows[] = {
      {86399, "1970-01-01"}, {86400, "1970-01-02"}, {951782400, "2000-02-29"}, {253402300799, "9999-12-31"}};
  for (const auto& [timestamp, day] : rows) {
    EXPECT_EQ(dayText(dayOfTimestamp(timestamp)), day);
    EXPECT_EQ(dayFromText(day), dayOfTimestamp(timestamp));
  }
  for (const char* bad : {"2025-02-29", "2025-13-01", "2025-00-10", "2025-1-01", "x025-01-01", "2025-01-32"})
    EXPECT_EQ(dayFromText(bad), -1) << bad;
}

}  // namespace
}  // namespace pxcollector
