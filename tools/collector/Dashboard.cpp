// The dashboard page, drawn on the server as inline SVG.
#include "Dashboard.h"

#include <algorithm>
#include <map>

namespace pxcollector {
namespace {

struct Mark {
  std::string label;
  int64_t value = 0;
};

constexpr int kChartWidth = 720;
constexpr int kChartHeight = 200;
constexpr int kBarRowHeight = 22;
constexpr int kLabelWidth = 220;

std::string urlEncode(const std::string& text) {
  static const char* hex = "0123456789ABCDEF";
  std::string out;
  for (unsigned char c : text) {
    if (isalnum(c) || c == '-' || c == '_' || c == '.' || c == '~') {
      out += static_cast<char>(c);
    } else {
      out += '%';
      out += hex[c >> 4];
      out += hex[c & 15];
    }
  }
  return out;
}

// Vertical bars over time: one <rect class="bar"> per day.
std::string columnChart(const std::string& id, const std::vector<Mark>& marks) {
  if (marks.empty()) return "<p class=\"empty\" id=\"" + id + "-empty\">Nothing received yet.</p>\n";
  int64_t top = 1;
  for (const Mark& m : marks) top = std::max(top, m.value);
  const int plotTop = 16, plotBottom = kChartHeight - 28, left = 48;
  const double slot = double(kChartWidth - left - 8) / double(marks.size());
  const double barWidth = std::max(1.0, slot * 0.8);
  std::string svg = "<svg id=\"" + id + "\" class=\"chart\" role=\"img\" width=\"" +
                    std::to_string(kChartWidth) + "\" height=\"" + std::to_string(kChartHeight) +
                    "\" viewBox=\"0 0 " + std::to_string(kChartWidth) + " " + std::to_string(kChartHeight) +
                    "\" xmlns=\"http://www.w3.org/2000/svg\">\n";
  svg += "<line class=\"axis\" x1=\"" + std::to_string(left) + "\" y1=\"" + std::to_string(plotBottom) +
         "\" x2=\"" + std::to_string(kChartWidth - 4) + "\" y2=\"" + std::to_string(plotBottom) + "\"/>\n";
  svg += "<text class=\"scale\" x=\"" + std::to_string(left - 6) + "\" y=\"" + std::to_string(plotTop + 4) +
         "\" text-anchor=\"end\">" + std::to_string(top) + "</text>\n";
  for (size_t i = 0; i < marks.size(); ++i) {
    const double height = double(plotBottom - plotTop) * double(marks[i].value) / double(top);
    const double x = left + slot * double(i) + (slot - barWidth) / 2;
    char geometry[160];
    snprintf(geometry, sizeof geometry, "x=\"%.1f\" y=\"%.1f\" width=\"%.1f\" height=\"%.1f\"", x,
             plotBottom - height, barWidth, height);
    const std::string label = escapeHTML(marks[i].label);
    svg += "<rect class=\"bar\" data-label=\"" + label + "\" data-value=\"" + std::to_string(marks[i].value) +
           "\" " + geometry + "><title>" + label + ": " + std::to_string(marks[i].value) +
           "</title></rect>\n";
  }
  // First and last day under the axis.
  svg += "<text class=\"scale\" x=\"" + std::to_string(left) + "\" y=\"" + std::to_string(kChartHeight - 10) +
         "\">" + escapeHTML(marks.front().label) + "</text>\n";
  if (marks.size() > 1)
    svg += "<text class=\"scale\" x=\"" + std::to_string(kChartWidth - 4) + "\" y=\"" +
           std::to_string(kChartHeight - 10) + "\" text-anchor=\"end\">" + escapeHTML(marks.back().label) +
           "</text>\n";
  return svg + "</svg>\n";
}

// Horizontal bars, one row per label, for spreads.
std::string barChart(const std::string& id, const std::vector<Mark>& marks) {
  if (marks.empty()) return "<p class=\"empty\" id=\"" + id + "-empty\">Nothing received yet.</p>\n";
  int64_t top = 1;
  for (const Mark& m : marks) top = std::max(top, m.value);
  const int height = kBarRowHeight * static_cast<int>(marks.size()) + 8;
  std::string svg = "<svg id=\"" + id + "\" class=\"chart\" role=\"img\" width=\"" +
                    std::to_string(kChartWidth) + "\" height=\"" + std::to_string(height) +
                    "\" xmlns=\"http://www.w3.org/2000/svg\">\n";
  const int room = kChartWidth - kLabelWidth - 60;
  for (size_t i = 0; i < marks.size(); ++i) {
    const int y = 4 + kBarRowHeight * static_cast<int>(i);
    const int width = std::max<int>(1, static_cast<int>(double(room) * double(marks[i].value) / double(top)));
    const std::string label = escapeHTML(marks[i].label), value = std::to_string(marks[i].value);
    svg += "<text class=\"label\" x=\"" + std::to_string(kLabelWidth - 8) + "\" y=\"" +
           std::to_string(y + 15) + "\" text-anchor=\"end\">" + label + "</text>\n";
    svg += "<rect class=\"bar\" data-label=\"" + label + "\" data-value=\"" + value + "\" x=\"" +
           std::to_string(kLabelWidth) + "\" y=\"" + std::to_string(y) + "\" width=\"" +
           std::to_string(width) + "\" height=\"" + std::to_string(kBarRowHeight - 6) + "\"><title>" + label +
           ": " + value + "</title></rect>\n";
    svg += "<text class=\"count\" x=\"" + std::to_string(kLabelWidth + width + 6) + "\" y=\"" +
           std::to_string(y + 15) + "\">" + value + "</text>\n";
  }
  return svg + "</svg>\n";
}

const char* const kStyle =
    "body{font:14px system-ui,sans-serif;margin:24px;color:#222;background:#fafafa}"
    "h1{font-size:20px}h2{font-size:16px;margin-top:28px}"
    ".figures span{display:inline-block;margin-right:24px}.figures b{font-size:20px}"
    ".chart{background:#fff;border:1px solid #ddd}.bar{fill:#3a7bd5}.axis{stroke:#888}"
    ".scale,.label,.count{font-size:11px;fill:#444}.empty{color:#888}"
    "table{border-collapse:collapse}td,th{padding:2px 10px;border-bottom:1px solid #eee;text-align:left}";

}  // namespace

std::string escapeHTML(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  for (char c : text) {
    switch (c) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '"':
        out += "&quot;";
        break;
      case '\'':
        out += "&#39;";
        break;
      default:
        out += c;
    }
  }
  return out;
}

std::string renderDashboard(const CollectorSummary& summary, const std::string& metric,
                            const std::vector<MetricDailySum>& sums, const std::string& token) {
  std::vector<Mark> perDay;
  for (const DayCount& d : summary.papercutsPerDay) perDay.push_back({dayText(d.day), d.count});

  std::map<int64_t, int64_t> metricByDay;  // summed over primary and secondary
  for (const MetricDailySum& row : sums) metricByDay[row.day] += row.sum;
  std::vector<Mark> metricMarks;
  for (const auto& [day, sum] : metricByDay) metricMarks.push_back({dayText(day), sum});

  std::vector<Mark> versions, osVersions;
  for (const LabelCount& v : summary.versions)
    versions.push_back({v.label + " " + (v.detail.empty() ? "(no version)" : v.detail), v.count});
  for (const LabelCount& v : summary.osVersions)
    osVersions.push_back({v.label.empty() ? "(unknown)" : v.label, v.count});

  std::string html =
      "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">"
      "<title>pxkit-collector</title><style>";
  html += kStyle;
  html += "</style></head><body>\n<h1>Papercuts collected</h1>\n<p class=\"figures\">";
  html += "<span>papercuts <b id=\"papercut-count\">" + std::to_string(summary.papercuts) + "</b></span>";
  html += "<span>applications <b id=\"application-count\">" + std::to_string(summary.applications.size()) +
          "</b></span>";
  html += "<span>rejected <b id=\"rejected-count\">" + std::to_string(summary.rejected) + "</b></span></p>\n";

  html += "<h2>Papercuts per day</h2>\n" + columnChart("papercuts-per-day", perDay);

  html += "<h2>Daily values of <code id=\"chosen-metric\">" + escapeHTML(metric) + "</code></h2>\n";
  html += "<form method=\"get\" action=\"/\"><label>Metric <input name=\"metric\" value=\"" +
          escapeHTML(metric) + "\"></label>";
  if (!token.empty()) html += "<input type=\"hidden\" name=\"token\" value=\"" + escapeHTML(token) + "\">";
  html += " <button type=\"submit\">Show</button></form>\n";
  html += columnChart("metric-per-day", metricMarks);
  if (!sums.empty()) {
    html += "<table id=\"metric-rows\"><tr><th>day</th><th>primary</th><th>secondary</th><th>sum</th></tr>\n";
    for (const MetricDailySum& row : sums) {
      html += "<tr><td>" + dayText(row.day) + "</td><td>" + escapeHTML(row.primary) + "</td><td>" +
              escapeHTML(row.secondary) + "</td><td>" + std::to_string(row.sum) + "</td></tr>\n";
    }
    html += "</table>\n";
  }

  html += "<h2>Application versions</h2>\n" + barChart("application-versions", versions);
  html += "<h2>OS versions</h2>\n" + barChart("os-versions", osVersions);
  const std::string query = token.empty() ? "" : "?token=" + urlEncode(token);
  html += "<p>As JSON: <a href=\"/api/summary" + escapeHTML(query) +
          "\">summary</a>, <a href=\"/api/metrics?identifier=" + urlEncode(metric) +
          (token.empty() ? "" : "&amp;token=" + urlEncode(token)) + "\">" + escapeHTML(metric) +
          "</a></p>\n</body></html>\n";
  return html;
}

}  // namespace pxcollector
