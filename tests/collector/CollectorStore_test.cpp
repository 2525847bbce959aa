// Both stores, the same cases: a real SQLite file and a real PostgreSQL server.
#include "CollectorStore.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>

#include "CollectorTestSupport.h"

namespace pxcollector {
namespace {

class CollectorStoreTest : public ::testing::TestWithParam<const char*> {
 protected:
  void SetUp() override {
    if (std::string(GetParam()) == "PostgreSQL") {
      pg_ = std::make_unique<PostgreSQLServer>();
      if (!pg_->running()) GTEST_SKIP() << "PostgreSQL cannot be started here: " << pg_->whyNot();
      db_ = pg_->uri();
    } else {
      db_ = dir_.path() + "/nested/papercuts.db";
    }
    store_ = openCollectorStore(db_, &error_);
    ASSERT_TRUE(store_) << error_;
  }

  std::vector<std::string> store(const std::string& body, CollectorStore* into = nullptr) {
    SubmissionReading r = readSubmission(body.data(), body.size());
    EXPECT_TRUE(r.error.empty()) << r.error;
    std::vector<std::string> named;
    EXPECT_TRUE((into ? into : store_.get())->storeSubmission(r.papercuts, r.rejected, &named, &error_))
        << error_;
    return named;
  }
  CollectorSummary summary() {
    CollectorSummary s;
    EXPECT_TRUE(store_->summary(&s, &error_)) << error_;
    return s;
  }
  std::vector<MetricDailySum> sums(const std::string& identifier, int64_t from, int64_t to) {
    std::vector<MetricDailySum> rows;
    EXPECT_TRUE(store_->metricDailySums(identifier, from, to, &rows, &error_)) << error_;
    return rows;
  }

  TempDir dir_;
  std::unique_ptr<PostgreSQLServer> pg_;
  std::string db_;
  std::string error_;
  std::unique_ptr<CollectorStore> store_;
};

TEST_P(CollectorStoreTest, PapercutsAndRejectionsAreStoredOnceAndNamedEveryTime) {
  using V = std::vector<std::string>;
  // Text that looks like SQL is stored as text.
  const std::string hostile = "x'); DROP TABLE papercuts; --";
  const std::string odd = "{\"packageID\":\"" + hostile +
                          "\",\"applicationID\":\"a' OR '1'='1\",\"metrics\":[" + "{\"identifier\":\"" +
                          hostile + "\",\"primary\":\"\\\"; DELETE FROM data_sets; --\"," +
                          "\"value\":1}],\"totalUsageDays\":0,\"timestamp\":0,\"channel\":\"$1\"}";
  const std::string rejected[] = {"{\"packageID\":\"broken\",\"metrics\":7}", "[1,2]"};
  EXPECT_EQ(store(submissionJSON({papercutJSON("a"), rejected[0], odd, rejected[1]})),
            (V{"a", hostile, "broken"}));
  // "a" again with other figures: the stored one stays as it was; the rejections are kept once.
  EXPECT_EQ(
      store(submissionJSON({papercutJSON("a", 1764000000, 5), rejected[1], rejected[0], papercutJSON("c")})),
      (V{"a", "c", "broken"}));
  // Twice within one submission: named once, stored once.
  EXPECT_EQ(store(submissionJSON({papercutJSON("d"), papercutJSON("d", 1764100000, 3)})), (V{"d"}));
  // A second opening of the same database (as a second collector) finds the
  // schema as it was and everything stored through the first.
  auto again = openCollectorStore(db_, &error_);
  ASSERT_TRUE(again) << error_;
  EXPECT_EQ(store(submissionJSON({papercutJSON("c"), papercutJSON("e")}), again.get()), (V{"c", "e"}));
  bool stored = false;
  ASSERT_TRUE(again->hasPapercut("c", &stored, &error_));
  EXPECT_TRUE(stored);
  ASSERT_TRUE(again->hasPapercut("zz", &stored, &error_));
  EXPECT_FALSE(stored);
  CollectorSummary s = summary();
  EXPECT_EQ(s.papercuts, 5);
  EXPECT_EQ(s.rejected, 2);
  ASSERT_EQ(s.applications.size(), 2u);
  EXPECT_EQ(s.applications[0].label, "a' OR '1'='1");
  std::string reason;
  ASSERT_TRUE(store_->rejectedReason("package:broken", &reason, &error_)) << error_;
  EXPECT_EQ(reason, "\"applicationID\" is missing");
  std::vector<MetricDailySum> rows = sums("test.metric0", 0, 100000);
  ASSERT_EQ(rows.size(), 1u);  // a, c, d, e each carry one test.metric0 data set, all on one day
  EXPECT_EQ(rows[0].sum, 4);
  EXPECT_EQ(rows[0].primary, "p0");
  rows = sums(hostile, 0, 10);
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_EQ(rows[0].primary, "\"; DELETE FROM data_sets; --");
  // SQLite keeps a write-ahead log, which a killed collector leaves consistent.
  EXPECT_EQ(std::filesystem::exists(db_ + "-wal"), std::string(GetParam()) == "SQLite");
}

TEST_P(CollectorStoreTest, DailySumsAndSummaryCountByDayPrimaryAndSecondary) {
  const long long day1 = 1764000000, day2 = day1 + 86400;
  store(submissionJSON({launchesJSON("1", day1, "1.0", "12.1.0", 2),
                        launchesJSON("2", day1 + 60, "1.1", "12.1.0", 3),
                        launchesJSON("3", day2, "1.1", "12.1.4", 5)}));
  const int64_t d1 = dayOfTimestamp(day1);
  std::vector<MetricDailySum> rows = sums("common.launches", d1, d1 + 1);
  ASSERT_EQ(rows.size(), 2u);
  EXPECT_EQ(rows[0].day, d1);
  EXPECT_EQ(rows[0].sum, 5);
  EXPECT_EQ(rows[1].sum, 5);
  EXPECT_EQ(sums("common.launches", d1 + 1, d1 + 1).size(), 1u);  // "from" and "to" are both inclusive
  rows = sums("common.osversion", d1, d1 + 1);
  ASSERT_EQ(rows.size(), 2u);
  EXPECT_EQ(rows[0].secondary, "12.1.0");
  EXPECT_EQ(rows[0].sum, 2);

  CollectorSummary s = summary();
  // 2 versions, 2 OS versions, 1 channel, 2 days
  ASSERT_EQ(s.versions.size() + s.osVersions.size() + s.channels.size() + s.papercutsPerDay.size(), 7u);
  EXPECT_EQ(s.versions[1].detail + " " + std::to_string(s.versions[1].count), "1.1 2");
  EXPECT_EQ(s.osVersions[0].label + " " + std::to_string(s.osVersions[0].count), "12.1.0 2");
  EXPECT_EQ(s.channels[0].label, "mas");
  EXPECT_EQ(s.papercutsPerDay[0].count, 2);
}

INSTANTIATE_TEST_SUITE_P(Stores, CollectorStoreTest, ::testing::Values("SQLite", "PostgreSQL"),
                         [](const auto& row) { return std::string(row.param); });

}  // namespace
}  // namespace pxcollector
