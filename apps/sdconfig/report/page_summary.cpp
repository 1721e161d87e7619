// The page's summary, and its end.
#include <array>

#include "apps/sdconfig/report/page_parts.h"

namespace cli {

void writeVerdict(const Report& report, Markup& page) {
    const std::size_t problems = report.problems();
    if (problems == 0) {
        page << "<p class=\"verdict good\">Nothing is wrong, as far as this report can see.</p>";
        return;
    }
    page << "<p class=\"verdict bad\">";
    page.number(problems);
    problems == 1 ? page << " thing wants to be mended.</p>" : page << " things want to be mended.</p>";
}

void writeWords(const Report& report, Markup& page) {
    page << "<p>";
    for (const std::string& sentence : report.words) page.text(sentence) << " ";
    page << "</p>";
}

void writeTally(const Report& report, Markup& page) {
    std::array<std::size_t, kSources> counts{};
    for (const ReportedKey& one : report.keys) ++counts[static_cast<std::size_t>(one.source)];
    if (report.keys.empty()) return;
    page << "<ul class=\"tally\" aria-label=\"Where the values come from\">";
    for (std::size_t i = 0; i < kSources; ++i) {
        if (counts[i] == 0) continue;
        page << "<li>";
        writeSource(static_cast<Source>(i), page);
        page << " ";
        page.number(counts[i]);
    }
    page << "</ul>";
}

void writeFindings(const Report& report, Markup& page) {
    page << "<ul class=\"list checks\">";
    for (const Check& check : report.checks) {
        if (check.ok()) continue;
        page << "\n<li class=\"bad\"><b>";
        page.text(check.name) << "</b> (problem) ";
        page.text(check.what) << "<span class=\"todo\">Do: ";
        page.text(check.next) << "</span>";
    }
    for (const Check& check : report.checks) {
        if (!check.ok()) continue;
        page << "\n<li><b>";
        page.text(check.name) << "</b> ";
        page.text(check.what);
    }
    page << "</ul>";
}

void writeUnseen(const Report& report, Markup& page) {
    if (report.unseen.empty()) {
        page << "<p class=\"none\">Nothing was hidden from it.</p>";
        return;
    }
    page << "<ul class=\"list\">";
    for (const Unseen& one : report.unseen) {
        page << "\n<li>";
        page.text(one.what) << "<span class=\"todo\">To see it: ";
        page.text(one.next) << "</span>";
    }
    page << "</ul>";
}

void writeEnvironment(const Report& report, Markup& page) {
    page << "<dl>";
    for (const auto& [name, value] : report.environment) {
        page << "\n<dt>";
        page.text(name) << "<dd>";
        page.text(value);
    }
    page << "</dl>";
}

}  // namespace cli
