// pxkit-collector — the dashboard page: one self-contained HTML document.
//
// Server-rendered SVG, no script and no external resource: the page shows the
// papercuts received per day, the daily values of one chosen metric, and the
// spread of application and OS versions. Every plotted mark carries its figure
// in a data-value attribute (and a <title> for the pointer), so that what is
// drawn can be read back from the DOM.
//
//   std::string html = renderDashboard(summary, "common.launches", sums, token);
//
// Pure function: any thread.
#pragma once

#include <string>
#include <vector>

#include "CollectorStore.h"

namespace pxcollector {

// `metric` is the chosen identifier ("" for none chosen) and `sums` its daily
// sums; `token` (may be "") is carried in the page's own links and form.
std::string renderDashboard(const CollectorSummary& summary, const std::string& metric,
                            const std::vector<MetricDailySum>& sums, const std::string& token);

// Text escaped for HTML element content and attribute values.
std::string escapeHTML(const std::string& text);

}  // namespace pxcollector
