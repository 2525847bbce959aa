// The dashboard as a browser shows it: headless Chromium loads the page from a
// running collector, and the DOM it built is read back for the plotted figures.
#include "Dashboard.h"

#include <gtest/gtest.h>

#include <regex>
#include <string>

#include "CollectorTestSupport.h"

namespace pxcollector {
namespace {

constexpr const char* kChromium = "/usr/bin/chromium";

// Runs headless Chromium on `url` with `mode` ("--dump-dom"); its stdout.
bool runChromium(const std::string& url, const std::string& mode, std::string* out) {
  TempDir profile;
  std::vector<std::string> argv = {kChromium,
                                   "--headless",
                                   "--no-sandbox",
                                   "--disable-gpu",
                                   "--disable-quic",
                                   "--no-first-run",
                                   "--disable-background-networking",
                                   "--disable-component-update",
                                   "--disable-sync",
                                   "--user-data-dir=" + profile.path(),
                                   "--window-size=900,1400",
                                   mode,
                                   url};
  PXSubprocess::Result result = PXSubprocess::run(argv);
  *out = std::move(result.output);
  return result.exitStatus == 0;
}

// The data-value of the bar labelled `label` inside the chart with id `chart` ("" when none).
std::string plotted(const std::string& dom, const std::string& chart, const std::string& label) {
  const size_t start = dom.find("id=\"" + chart + "\"");
  if (start == std::string::npos) return "";
  const size_t end = dom.find("</svg>", start);
  const std::string svg = dom.substr(start, end - start);
  std::smatch m;
  const std::regex bar("data-label=\"" +
                       std::regex_replace(label, std::regex(R"([.^$|()\[\]{}*+?\\])"), R"(\$&)") +
                       "\" data-value=\"([0-9]+)\"");
  return std::regex_search(svg, m, bar) ? m[1].str() : "";
}

TEST(Dashboard, ChromiumDrawsThePlottedFigures) {
  if (access(kChromium, X_OK) != 0)
    GTEST_SKIP() << "no " << kChromium << " (scripts/setup-deps installs chromium)";
  TempDir dir;
  CollectorProcess collector({"--db", dir.path() + "/p.db"});
  ASSERT_TRUE(collector.started()) << collector.output();
  const long long day1 = 1764000000, day2 = day1 + 86400;
  ASSERT_EQ(
      httpPost(collector.url() + "/metrics/post",
               submissionJSON({launchesJSON("a", day1, "2.0", "13.1", 4),
                               launchesJSON("b", day1 + 5, "2.1", "13.1", 3),
                               launchesJSON("c", day2, "2.1", "13.2", 9), "{\"packageID\":\"<script>\"}"}))
          .status,
      200);

  std::string dom;
  ASSERT_TRUE(runChromium(collector.url() + "/", "--dump-dom", &dom)) << dom;
  EXPECT_EQ(plotted(dom, "papercuts-per-day", "2025-11-24"), "2");
  EXPECT_EQ(plotted(dom, "papercuts-per-day", "2025-11-25"), "1");
  EXPECT_EQ(plotted(dom, "metric-per-day", "2025-11-24"), "7");  // common.launches: 4 + 3
  EXPECT_EQ(plotted(dom, "metric-per-day", "2025-11-25"), "9");
  EXPECT_EQ(plotted(dom, "application-versions", "org.example.Editor 2.1"), "2");
  EXPECT_EQ(plotted(dom, "os-versions", "13.1"), "2");
  EXPECT_NE(dom.find("<b id=\"rejected-count\">1</b>"), std::string::npos);
  EXPECT_EQ(dom.find("<script"), std::string::npos);  // the page has none, and brings in none

  // Another metric, chosen through the page's own query.
  ASSERT_TRUE(runChromium(collector.url() + "/?metric=common.osversion", "--dump-dom", &dom));
  EXPECT_EQ(plotted(dom, "metric-per-day", "2025-11-24"), "2");
  EXPECT_NE(dom.find("<code id=\"chosen-metric\">common.osversion</code>"), std::string::npos);
}

TEST(Dashboard, TextFromSubmissionsIsEscaped) {
  CollectorSummary summary;
  summary.papercuts = 1;
  summary.versions.push_back({"<img src=x onerror=alert(1)>", "\"1\"", 1});
  const std::string html = renderDashboard(summary, "a\"><script>", {}, "t&k");
  EXPECT_EQ(html.find("<img"), std::string::npos);
  EXPECT_EQ(html.find("<script>"), std::string::npos);
  EXPECT_NE(html.find("&lt;img src=x onerror=alert(1)&gt; &quot;1&quot;"), std::string::npos);
  EXPECT_NE(html.find("value=\"t&amp;k\""), std::string::npos);
  EXPECT_NE(html.find("token=t%26k"), std::string::npos);
  EXPECT_NE(html.find("id=\"papercuts-per-day-empty\""), std::string::npos);
}

}  // namespace
}  // namespace pxcollector
