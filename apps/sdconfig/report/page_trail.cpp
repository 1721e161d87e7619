// The page's lines of the trail.
#include "apps/sdconfig/report/page_parts.h"

namespace cli {

void writeTrailWords(const Report& report, Markup& page) {
    if (report.trail.empty())
        page << "<p class=\"none\">This report sees none.</p>";
    else
        page << "<p>The latest entries, the newest first. Who it was is told as the kernel named the caller; values "
                "never stand in a trail.</p>";
}

void writeTrail(const Report& report, Markup& page) {
    for (const ReportedEntry& one : report.trail) {
        page << "\n<tr><th>";
        page.text(std::to_string(one.number)) << "<td>";
        page.text(one.when) << "<td>";
        if (one.isAmiss) page << "<b class=x>!</b> ";
        page.text(one.deed) << "<td>";
        if (one.key) writeLink(report, *one.key, one.isProperty, page);
        page << "<td>";
        page.text(one.doer);
    }
}

}  // namespace cli
