// pxkit-collector as a process on an ephemeral loopback port: what each request
// is answered, what ends up stored and shown, and what survives a kill.
#include "CollectorServer.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <string>
#include <thread>

#include "CollectorTestSupport.h"

namespace pxcollector {
namespace {

TEST(CollectorServer, BadRequestsGetAJSONErrorGoodOnesTheSameReceiptAndQueriesNeedTheToken) {
  TempDir dir;
  // The biggest body below, one byte longer, is the most the collector takes.
  const std::string body = submissionJSON(
      {papercutJSON("one"), "{\"packageID\":\"never\",\"timestamp\":\"soon\"}", papercutJSON("two")});
  const std::string limit = std::to_string(body.size() + 1);
  CollectorProcess collector({"--db", dir.path() + "/p.db", "--max-body-bytes", limit, "--token", "s3cret"});
  ASSERT_TRUE(collector.started()) << collector.output();
  const std::string bearer = "Authorization: Bearer s3cret";
  const struct {
    std::string method, path, body;
    long status;
    std::string says = "\"error\":";
    std::vector<std::string> headers = {"Authorization: Bearer s3cret"};
  } rows[] = {
      // Which bodies are no submission is PapercutRecord's (tested there): two of them here.
      {"POST", "/metrics/post", "{\"processedPapercutPackageIDs\":[]}", 400},
      {"POST", "/metrics/post", "", 400},
      // JSON allows trailing white space; the limit is judged from the length.
      {"POST", "/metrics/post", body + "  ", 413, "larger than the limit of " + limit + " bytes"},
      // A body without Content-Length is refused too.
      {"POST", "/metrics/post", body, 411, "\"error\":", {"Transfer-Encoding: chunked"}},
      {"GET", "/metrics/post", "", 405},
      {"POST", "/api/summary", body, 405},
      {"GET", "/api/metrics", "", 400},
      {"GET", "/api/metrics?identifier=a&from=2025-02-30", "", 400},
      {"GET", "/api/summary", "", 401, "\"error\":", {}},
      {"GET", "/api/summary", "", 401, "\"error\":", {"Authorization: Bearer s3cre"}},
      {"GET", "/?token=s3cret", "", 200, "<html", {}},
      // Through all of it the collector kept serving and stored nothing.
      {"GET", "/api/summary", "", 200, "\"papercuts\":0,\"rejected\":0,"},
  };
  for (const auto& row : rows) {
    HTTPAnswer a = httpRequest(row.method, collector.url() + row.path, row.body, row.headers);
    EXPECT_EQ(a.status, row.status) << row.method << " " << row.path << ": " << a.body;
    EXPECT_NE(a.body.find(row.says), std::string::npos) << a.body;
    EXPECT_EQ(a.body.find("processedPapercutPackageIDs\":["), std::string::npos) << a.body;
  }
  // Ingest needs no token. A resubmission is answered with the same receipt,
  // rejected records named last; the limit is inclusive.
  for (const std::string& again : {body, body + " ", body}) {
    HTTPAnswer a = httpRequest("POST", collector.url() + "/metrics/post", again);
    EXPECT_EQ(a.status, 200);
    EXPECT_EQ(a.body, "{\"processedPapercutPackageIDs\":[\"one\",\"two\",\"never\"]}");
  }
  HTTPAnswer summary = httpRequest("GET", collector.url() + "/api/summary", "", {bearer});
  EXPECT_NE(summary.body.find("\"papercuts\":2,\"rejected\":1,"), std::string::npos) << summary.body;
  HTTPAnswer metric = httpRequest(
      "GET", collector.url() + "/api/metrics?identifier=test.metric1&from=2025-11-24&to=2025-11-24", "",
      {bearer});
  EXPECT_EQ(metric.body,
            "{\"identifier\":\"test.metric1\",\"from\":\"2025-11-24\",\"to\":\"2025-11-24\",\"days\":"
            "[{\"day\":\"2025-11-24\",\"primary\":\"p1\",\"secondary\":\"\",\"sum\":4}]}");
}

// Every papercut whose receipt reached the client is on disk, however the
// collector ends: a stream of submissions, a SIGKILL in the middle of it, a restart.
TEST(CollectorServer, EveryReceiptedPapercutSurvivesAKill) {
  TempDir dir;
  const std::string db = dir.path() + "/p.db";
  CollectorProcess collector({"--db", db});
  ASSERT_TRUE(collector.started()) << collector.output();
  std::vector<std::string> receipted;  // read only after the sender has ended
  std::atomic<size_t> receipts{0};
  std::atomic<bool> done{false}, senderEnded{false};
  std::thread sender([&] {
    for (int i = 0; !done; ++i) {
      const std::string id = "kill-" + std::to_string(i);
      HTTPAnswer a = httpRequest("POST", collector.url() + "/metrics/post",
                                 submissionJSON({papercutJSON(id, 1764000000, 20)}));
      if (a.status != 200) break;  // the collector is gone
      if (a.body == "{\"processedPapercutPackageIDs\":[\"" + id + "\"]}") {
        receipted.push_back(id);
        ++receipts;
      }
    }
    senderEnded = true;
  });
  // Kill once a good number of receipts has come back, while sending goes on.
  while (receipts < 40 && !senderEnded) std::this_thread::yield();
  const int status = collector.stop(SIGKILL);
  done = true;
  sender.join();
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
  ASSERT_GE(receipted.size(), 40u);

  CollectorProcess restarted({"--db", db});
  ASSERT_TRUE(restarted.started()) << restarted.output();
  std::string error;
  auto store = openCollectorStore(db, &error);
  ASSERT_TRUE(store) << error;
  for (const std::string& id : receipted) {
    bool stored = false;
    EXPECT_TRUE(store->hasPapercut(id, &stored, &error) && stored) << id;
  }
}

// Under the default limit a 100 MB body is refused from its headers; a body that ends before its
// Content-Length says is never taken for a submission. Neither stores anything.
TEST(CollectorServer, HugeAndTruncatedBodiesStoreNothing) {
  TempDir dir;
  CollectorProcess collector({"--db", dir.path() + "/p.db"});
  ASSERT_TRUE(collector.started()) << collector.output();
  HTTPAnswer big = httpRequest("POST", collector.url() + "/metrics/post", std::string(100u << 20, ' '));
  EXPECT_EQ(big.status, 413);
  EXPECT_NE(big.body.find("larger than the limit of 16777216 bytes"), std::string::npos) << big.body;
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port =
      htons(static_cast<uint16_t>(std::stoi(collector.url().substr(collector.url().rfind(':') + 1))));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  const std::string cut = "POST /metrics/post HTTP/1.1\r\nHost: x\r\nContent-Length: 500\r\n\r\n" +
                          submissionJSON({papercutJSON("cut")});
  ASSERT_EQ(send(fd, cut.data(), cut.size(), MSG_NOSIGNAL), static_cast<ssize_t>(cut.size()));
  shutdown(fd, SHUT_WR);
  std::string reply(4096, '\0');
  reply.resize(std::max<ssize_t>(0, recv(fd, reply.data(), reply.size(), 0)));
  close(fd);
  EXPECT_EQ(reply.find("processedPapercutPackageIDs"), std::string::npos) << reply;
  HTTPAnswer summary = httpRequest("GET", collector.url() + "/api/summary");
  EXPECT_NE(summary.body.find("\"papercuts\":0,\"rejected\":0,"), std::string::npos) << summary.body;
}

TEST(CollectorServer, RefusesToStartWhereItShouldNot) {
  TempDir dir;
  const struct {
    std::vector<std::string> args;
    const char* says;
  } rows[] = {
      {{"--listen", "0.0.0.0:0", "--db", dir.path() + "/p.db"}, "needs --token"},
      {{"--listen", "127.0.0.1:65536", "--db", dir.path() + "/p.db"}, "expected ADDR:PORT"},
      {{"--db", dir.path()}, "cannot open"},
      {{"--db", "postgresql://nobody@/none?host=" + dir.path()}, "cannot connect to PostgreSQL"},
      {{"--frobnicate"}, "unknown argument"},
  };
  for (const auto& row : rows) {
    CollectorProcess collector(row.args, /*addListen=*/false);
    EXPECT_FALSE(collector.started());
    const int status = collector.stop(0);  // it ends by itself
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) != 0);
    EXPECT_NE(collector.output().find(row.says), std::string::npos) << collector.output();
  }
}

// Headless Chromium draws the page of a running collector: its DOM carries the
// plotted figures, and the page renders to a screenshot.
TEST(Dashboard, ChromiumDrawsTheStoredFigures) {
  constexpr const char* kChromium = "/usr/bin/chromium";
  if (access(kChromium, X_OK) != 0) GTEST_SKIP() << "no " << kChromium << " (scripts/setup-deps installs it)";
  TempDir dir;
  CollectorProcess collector({"--db", dir.path() + "/p.db"});
  ASSERT_TRUE(collector.started()) << collector.output();
  const long long day1 = 1764000000, day2 = day1 + 86400;
  const std::string body = submissionJSON(
      {launchesJSON("a", day1, "2.0", "13.1", 4), launchesJSON("b", day1 + 5, "2.1", "13.1", 3),
       launchesJSON("c", day2, "2.1", "<img src=x>", 9), "{\"packageID\":\"<script>\"}"});
  ASSERT_EQ(httpRequest("POST", collector.url() + "/metrics/post", body).status, 200);
  auto chromium = [&](const std::string& mode, const std::string& query) {
    return PXSubprocess::run({kChromium, "--headless", "--no-sandbox", "--disable-gpu", "--no-first-run",
                              "--disable-background-networking", "--disable-component-update",
                              "--user-data-dir=" + dir.path() + "/profile", "--window-size=900,1400", mode,
                              collector.url() + "/" + query});
  };
  // The value of the bar labelled `label` in the chart `chart`, as the browser holds it.
  auto plotted = [](const std::string& dom, const std::string& chart, const std::string& label) {
    const size_t start = dom.find("id=\"" + chart + "\"");
    const size_t at = dom.find("data-label=\"" + label + "\" data-value=\"", start);
    if (start == std::string::npos || at == std::string::npos || at > dom.find("</svg>", start))
      return std::string();
    const size_t value = dom.find("data-value=\"", at) + 12;
    return dom.substr(value, dom.find('"', value) - value);
  };
  PXSubprocess::Result page = chromium("--dump-dom", "");
  ASSERT_EQ(page.exitStatus, 0) << page.output;
  EXPECT_EQ(plotted(page.output, "papercuts-per-day", "2025-11-24"), "2");
  EXPECT_EQ(plotted(page.output, "papercuts-per-day", "2025-11-25"), "1");
  EXPECT_EQ(plotted(page.output, "metric-per-day", "2025-11-24"), "7");  // common.launches: 4 + 3
  EXPECT_EQ(plotted(page.output, "application-versions", "org.example.Editor 2.1"), "2");
  EXPECT_EQ(plotted(page.output, "os-versions", "13.1"), "2");
  EXPECT_NE(page.output.find("<b id=\"rejected-count\">1</b>"), std::string::npos);
  EXPECT_EQ(page.output.find("<script"), std::string::npos);  // the page has none, and brings in none
  // Text from submissions is escaped, never markup.
  EXPECT_EQ(page.output.find("<img"), std::string::npos);
  EXPECT_NE(page.output.find("&lt;img src=x&gt;</text>"), std::string::npos);
  page = chromium("--dump-dom", "?metric=common.osversion");  // another metric, through the page's query
  EXPECT_EQ(plotted(page.output, "metric-per-day", "2025-11-24"), "2");

  ASSERT_EQ(chromium("--screenshot=" + dir.path() + "/dashboard.png", "").exitStatus, 0);
  std::ifstream file(dir.path() + "/dashboard.png", std::ios::binary);
  const std::string shot((std::istreambuf_iterator<char>(file)), {});
  EXPECT_EQ(shot.substr(0, 8), "\x89PNG\r\n\x1a\n");
  EXPECT_GT(shot.size(), 10000u);  // a drawn page, not a blank one
}

}  // namespace
}  // namespace pxcollector
