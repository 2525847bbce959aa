// Submission and receipts against a real HTTP server in the test process: what
// each answer of the endpoint leaves in the store, in memory and on disk, and
// when a submission is made at all.
#include <gtest/gtest.h>
#include <pxkit/metrics/PXMetricsTracker.h>
#include <pxkit/net/PXJSONSerialization.h>
#include <pxkit/objects/PXClock.h>
#include <pxkit/platform/PXBundle.h>
#include <pxkit/platform/PXCalendar.h>
#include <pxkit/platform/PXOperationQueue.h>
#include <pxkit/platform/PXPreferences.h>
#include <pxkit/platform/PXUserDefaults.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "metrics/internal/PXMetricsTrackerInternal.h"
#include "support/PXLogCapture.h"
#include "support/PXLoopbackServer.h"
#include "support/PXRunLoopUntil.h"
#include "support/PXTempHome.h"

namespace {

constexpr double kNoon = 700056000;  // 2023-03-09 12:00:00 UTC
constexpr const char* kApp = "org.pxkit.SubmissionTest";
constexpr const char* kSystem = "SUBMISSION-SYSTEM-ID";
constexpr const char* kReceipt = R"({"other":1,"processedPapercutPackageIDs":[$*]})";

using Strings = std::vector<std::string>;

class PXMetricsTrackerSubmissionTest : public testing::Test {
 protected:
  void SetUp() override {
    setenv("TZ", "UTC", 1);
    PXCalendar::resetTimeZone();
    ASSERT_TRUE(PXBundle::setMainBundleIdentity(kApp, "1.0", "100"));
    PXPreferences::setValue("MetricsRandomSystemID", kSystem, kPXPreferencesCurrentApplication,
                            kPXPreferencesCurrentUser, kPXPreferencesCurrentHost);
    tracker = PXMake<PXMetricsTracker>();
    tracker->setLastAutoSubmissionDate(PXDate(kNoon - 3 * 86400));
    tracker->setMetricsPostURL(server.url("/metrics/post"));
  }

  // Stores `count` papercuts, a second apart, and saves the state.
  Strings storePapercuts(int count, double from = kNoon - 7200) {
    for (int i = 0; i < count; ++i) {
      tracker->metricForIdentifier("com.example.clicks")->setValue(i + 1);
      tracker->settleOutstandingOperationsWithOperationSync(
          [&] { tracker->makePaperCutWithTimestamp(PXDate(from + i)); });
    }
    tracker->saveToPreferences();
    return idsOf(*tracker->paperCuts());
  }
  static Strings idsOf(const PXArray& cuts) {
    Strings ids;
    for (const PXValue& cut : cuts)
      ids.emplace_back(cut.dictionaryValue()->objectForKey("packageID").stringValue());
    return ids;
  }
  // `body` with $* replaced by the quoted IDs, $<n> by the nth of them.
  static std::string answer(std::string body, const Strings& ids) {
    std::string all;
    for (const std::string& id : ids) all += (all.empty() ? "\"" : ",\"") + id + "\"";
    for (size_t at; (at = body.find('$')) != std::string::npos;)
      body.replace(at, 2, body[at + 1] == '*' ? all : ids.at(body[at + 1] - '0'));
    return body;
  }
  // Runs the main run loop until every main-queue operation enqueued so far has run.
  static void drainMainQueue() {
    bool drained = false;
    PXOperationQueue::mainQueue()->addOperationWithBlock([&] { drained = true; });
    ASSERT_TRUE(PXRunLoopUntil([&] { return drained; }));
  }
  // One submission, to its end (handler called), then the save it enqueued.
  bool submitAndWait(PXDate date = PXDate(kNoon)) {
    bool finished = false;
    tracker->submitDataWithResponseHandler(
        [&](PXJSONRequest*, bool, uint32_t, const PXValue&, PXError*) { finished = true; }, date);
    bool ended = PXRunLoopUntil([&] { return finished; });
    drainMainQueue();
    return ended;
  }
  // The papercuts in the preferences file, read afresh through a tracker of its own.
  Strings idsOnDisk() {
    PXRef<PXDictionary> all = PXPreferences::copyAppValue("Metrics", kApp).dictionaryValue();
    if (!all) return {"(no state)"};
    auto reader = PXMake<PXMetricsTracker>();
    if (!reader->restoreFromData(all->objectForKey(kSystem).dataValue())) return {"(unreadable)"};
    return idsOf(*reader->paperCuts());
  }
  size_t posts() const { return server.requests().size(); }

  PXTempHome home;
  PXScopedVirtualClock clock{PXDate(kNoon)};
  PXLoopbackServer server;
  PXRef<PXMetricsTracker> tracker;
};

}  // namespace

TEST_F(PXMetricsTrackerSubmissionTest, EachAnswerLeavesExactlyTheUnconfirmedPapercuts) {
  struct Case {
    const char* name;
    int status;  // 0: the connection is reset before the answer; 307: to the endpoint, which confirms all
    const char* body;
    std::vector<size_t> remaining;  // indexes of the four stored papercuts left afterwards
    bool dateRecorded;
  };
  const std::vector<size_t> all{0, 1, 2, 3};
  const Case cases[] = {
      {"500 with a receipt", 500, kReceipt, all, false},
      {"empty body", 200, "", all, true},
      {"not JSON", 200, "<html>thanks</html>", all, true},
      {"a JSON array", 200, R"(["$0"])", all, true},
      {"unknown IDs", 200, R"({"processedPapercutPackageIDs":["feed","0123456789abcdef"]})", all, true},
      {"half of them", 200, R"({"other":1,"processedPapercutPackageIDs":["$2","$0"]})", {1, 3}, true},
      {"IDs as numbers", 200, R"({"processedPapercutPackageIDs":[0,1,2,3]})", all, true},
      {"reset before the answer", 0, "", all, false},
      {"307 to the endpoint", 307, kReceipt, {}, true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    tracker->setPaperCuts(PXArray::array());
    const PXDate before(kNoon - 3 * 86400);
    tracker->setLastAutoSubmissionDate(before);
    const Strings ids = storePapercuts(4);
    ASSERT_EQ(ids.size(), 4u);
    PXLoopbackServer::Response response(answer(c.body, ids), c.status == 307 ? 200 : c.status);
    server.handle("/metrics/post", [response](const auto&) { return response; });
    server.handle("/moved", [&](const auto&) {
      return PXLoopbackServer::Response("", 307).header("Location", server.url("/metrics/post"));
    });
    server.handleRaw("/reset", PXLoopbackServer::RawResponse("", PXLoopbackServer::RawEnding::Reset));
    tracker->setMetricsPostURL(c.status == 0     ? server.rawURL("/reset")
                               : c.status == 307 ? server.url("/moved")
                                                 : server.url("/metrics/post"));
    ASSERT_TRUE(submitAndWait());
    Strings expected;
    for (size_t index : c.remaining) expected.push_back(ids[index]);
    EXPECT_EQ(idsOf(*tracker->paperCuts()), expected);
    EXPECT_EQ(idsOnDisk(), expected) << "the state on disk is the state in memory";
    EXPECT_EQ(tracker->lastAutoSubmissionDate(), c.dateRecorded ? PXDate(kNoon) : before);
  }
  // The body posted is the store, oldest first, and nothing else.
  PXLoopbackServer::Request last = server.requests().back();
  EXPECT_EQ(last.header("Content-Type"), "application/json");
  PXRef<PXDictionary> body =
      PXJSONSerialization::JSONObjectWithData(PXData::dataWithString(last.body), 0).dictionaryValue();
  ASSERT_TRUE(body);
  EXPECT_EQ(body->count(), 1u);
  EXPECT_EQ(body->objectForKey("papercuts").arrayValue()->count(), 4u);
}

TEST_F(PXMetricsTrackerSubmissionTest, OneSubmissionADayAndOnlyOneInFlight) {
  Strings ids = storePapercuts(2);
  server.handle("/metrics/post",
                [ids](const auto&) { return PXLoopbackServer::Response(answer(kReceipt, ids)); });
  tracker->start();                                                      // a trigger
  tracker->considerAutoSubmissionWithSubmissionDate(PXDate(kNoon + 1));  // and another at once
  ASSERT_TRUE(PXRunLoopUntil([&] { return tracker->paperCuts()->count() == 0; }));
  drainMainQueue();
  EXPECT_EQ(posts(), 1u);
  EXPECT_EQ(tracker->lastAutoSubmissionDate(), PXDate(kNoon - 60)) << "no date: a minute before the call";

  // Within the day nothing goes, however much is stored.
  storePapercuts(1, kNoon + 10);
  clock.advance(86339);  // 86399 s after the recorded date
  tracker->considerAutoSubmissionWithSubmissionDate();
  drainMainQueue();
  EXPECT_EQ(posts(), 1u);
  clock.advance(1);
  tracker->considerAutoSubmissionWithSubmissionDate();
  ASSERT_TRUE(PXRunLoopUntil([&] { return posts() == 2; }));
}

TEST_F(PXMetricsTrackerSubmissionTest, NothingGoesWhenNothingIsStoredOrTheStoreIsNotJSONOrNoRequestStarts) {
  bool called = false;
  tracker->submitDataWithResponseHandler([&](auto...) { called = true; });
  drainMainQueue();
  // A store that JSON cannot hold is logged and kept.
  storePapercuts(1);
  auto odd = PXMutableDictionary::dictionary();
  odd->setObject(PXDate(kNoon), "packageID");  // a date: JSON cannot hold it
  odd->setObject(PXArray::arrayWithObjects({PXValue(1)}), "metrics");
  odd->setObject(PXValue(1.0), "timestamp");
  pxkit::internal::addPapercut(*tracker, odd);
  ASSERT_EQ(tracker->paperCuts()->count(), 2u);
  PXLogCapture log;
  tracker->submitDataWithResponseHandler([&](auto...) { called = true; });
  drainMainQueue();
  EXPECT_TRUE(log.contains("Submission dictionary could not be packed as JSON"));
  EXPECT_EQ(tracker->paperCuts()->count(), 2u);
  // Idle again, also after a request that could not start (an unknown scheme).
  tracker->setPaperCuts(PXArray::array());
  storePapercuts(1);
  tracker->setMetricsPostURL("gopher://127.0.0.1/metrics/post");
  tracker->submitDataWithResponseHandler([&](auto...) { called = true; });
  drainMainQueue();
  EXPECT_FALSE(tracker->submissionRequest());
  EXPECT_EQ(posts(), 0u);
  EXPECT_FALSE(called);
  tracker->setMetricsPostURL(server.url("/metrics/post"));
  ASSERT_TRUE(submitAndWait());
  EXPECT_EQ(posts(), 1u);
}

TEST_F(PXMetricsTrackerSubmissionTest, OptedOutTrackerRecordsAndSendsNothingUntilSwitchedBack) {
  storePapercuts(2);
  PXUserDefaults* defaults = PXUserDefaults::standardUserDefaults();
  defaults->setBool(true, kPXMetricsPreferencesDisabledKey);
  tracker->considerAutoSubmissionWithSubmissionDate();
  EXPECT_TRUE(tracker->enabled()) << "before start the switch is not read";
  tracker->start();
  EXPECT_TRUE(tracker->autoSubmissionEnabled());
  tracker->updateMetricValue(5, "com.example.while.off");
  tracker->considerAutoSubmissionWithSubmissionDate();
  tracker->settleOutstandingOperationsWithOperationSync();
  drainMainQueue();
  EXPECT_EQ(posts(), 0u);
  EXPECT_FALSE(tracker->enabled());
  EXPECT_FALSE(pxkit::internal::findMetricForIdentifier(*tracker, "com.example.while.off", {}, {}));
  // Switching back is a trigger of its own: the overdue submission goes at once.
  defaults->setBool(false, kPXMetricsPreferencesDisabledKey);
  ASSERT_TRUE(PXRunLoopUntil([&] { return posts() == 1; }));
  defaults->removeObjectForKey(kPXMetricsPreferencesDisabledKey);
  EXPECT_TRUE(tracker->enabled()) << "absent means not disabled";
}

TEST_F(PXMetricsTrackerSubmissionTest, PapercutCutInFlightSurvivesTheEarlierReceipt) {
  Strings ids = storePapercuts(3);
  server.handle("/metrics/post",
                [ids](const auto&) { return PXLoopbackServer::Response(answer(kReceipt, ids)); });
  bool finished = false;
  tracker->submitDataWithResponseHandler([&](auto...) { finished = true; }, PXDate(kNoon));
  ASSERT_TRUE(PXRunLoopUntil([&] { return bool(tracker->submissionRequest()); }));
  // The request is running; its completion waits for this thread's run loop.
  tracker->metricForIdentifier("com.example.late")->setValue(9);
  tracker->settleOutstandingOperationsWithOperationSync(
      [&] { tracker->makePaperCutWithTimestamp(PXDate(kNoon)); });
  Strings late = idsOf(*tracker->paperCuts());
  ASSERT_EQ(late.size(), 4u);
  ASSERT_TRUE(PXRunLoopUntil([&] { return finished; }));
  drainMainQueue();
  EXPECT_EQ(idsOf(*tracker->paperCuts()), Strings{late[3]});
  EXPECT_EQ(idsOnDisk(), Strings{late[3]});
  EXPECT_FALSE(tracker->submissionRequest());
}
