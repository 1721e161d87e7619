// The page's lines of keys, and of what would change for them.
#include "apps/sdconfig/report/page_parts.h"

namespace cli {

namespace {

void writeValue(const ReportedValue& value, Markup& page) {
    switch (value.kind) {
        case ReportedValue::Kind::None:
            page << "<i>no value</i>";
            break;
        case ReportedValue::Kind::Hidden:
            page << "<i>not shown</i>";
            break;
        case ReportedValue::Kind::Shown:
            page.text(value.text);
    }
}

void writeSmall(const std::string& text, Markup& page) {
    page << "<small>";
    page.text(text) << "</small>";
}

// In paragraphs, which need no end: there may be one for each of thousands of keys.
void writeDescribed(const ReportedKey& one, Markup& page) {
    if (!one.described) return;
    const auto& [summary, values, usually, misfit] = *one.described;
    if (!misfit.empty()) {
        page << "<p><b class=x>Misfit</b> ";
        page.text(misfit);
    }
    std::string words = summary + (summary.empty() || values.empty() ? "" : "; ") + values;
    if (usually) words += (words.empty() ? "default: " : "; default: ") + *usually;
    if (words.empty()) return;
    page << "<p>";
    page.text(words);
}

void writeOrigin(const ReportedKey& one, Markup& page) {
    writeSource(one.source, page);
    if (one.isReadOnly) page << " <b class=u>Read-only</b>";
    const char* const between = one.place.empty() || one.why.empty() ? "" : "; ";
    if (!one.place.empty() || !one.why.empty()) writeSmall(one.why + between + one.place, page);
    if (!one.description.empty()) writeSmall("\u201c" + one.description + "\u201d", page);
    if (one.lost.empty()) return;
    page << "<ul>";
    for (const std::string& layer : one.lost) {
        page << "<li>";
        page.text(layer);
    }
    page << "</ul>";
}

void writeChange(const ReportedKey& one, Markup& page) {
    if (!one.change) return;
    page.text(one.change->when);
    writeSmall("by " + one.change->who, page);
}

void writeKey(const ReportedKey& one, Markup& page) {
    page << "\n<tr id=";
    page.name(nameOf(one.key, one.isProperty)) << "><th>";
    page.text(one.key);
    page << "<td>";
    writeValue(one.value, page);
    writeDescribed(one, page);
    page << "<td>";
    writeOrigin(one, page);
    page << "<td>";
    writeChange(one, page);
    page << "<td>";
    if (one.listeners) page.number(static_cast<std::size_t>(*one.listeners));
}

void writeSide(const ReportedSide& side, Markup& page) {
    page << "<td><code>";
    writeValue(side.value, page);
    page << "</code> <div>";
    writeSource(side.source, page);
    page << "</div>";
    if (!side.why.empty()) writeSmall(side.why, page);
}

void writeLeftOut(const WhatIf& whatIf, Markup& page) {
    if (whatIf.leftOut.empty()) return;
    page << "<ul class=\"list\">";
    for (const auto& [name, why] : whatIf.leftOut) {
        page << "\n<li><b>Left out</b> ";
        page.text(name) << ": ";
        page.text(why);
    }
    page << "</ul>";
}

}  // namespace

void writeSource(Source source, Markup& page) {
    switch (source) {
        case Source::Machine:
            page << "<b class=m>Machine policy</b>";
            break;
        case Source::Policy:
            page << "<b class=p>Stored policy</b>";
            break;
        case Source::Local:
            page << "<b class=l>Set locally</b>";
            break;
        case Source::HiddenByRow:
            page << "<b class=x>Hidden policy</b>";
            break;
        case Source::Unclear:
            page << "<b class=l>Set</b>";
            break;
        case Source::File:
            page << "<b class=f>Property of a file</b>";
            break;
        case Source::Running:
            page << "<b class=l>Property set at run time</b>";
            break;
        case Source::Deleted:
            page << "<b class=x>Property deleted at run time</b>";
            break;
        case Source::Unset:
            page << "<b class=u>Not set</b>";
    }
}

void writeKeys(const Report& report, Markup& page) {
    for (const ReportedKey& one : report.keys) writeKey(one, page);
}

void writePlanWords(const Report& report, Markup& page) {
    const WhatIf& whatIf = *report.whatIf;
    page << "<p>What would change for this user, were ";
    for (const std::string& file : whatIf.files) {
        if (&file != &whatIf.files.front()) page << ", ";
        page << "<code>";
        page.text(file) << "</code>";
    }
    page << " among the policies of the machine. ";
    if (whatIf.unchanged > 0) {
        page << "Beside these stay as they are: ";
        page.number(whatIf.unchanged) << ".";
    }
    page << "</p>";
    if (!whatIf.problem.empty()) {
        page << "<p class=\"verdict bad\">";
        page.text(whatIf.problem) << "</p>";
    } else if (whatIf.changes.empty()) {
        page << "<p class=\"none\">Nothing would change.</p>";
    }
    writeLeftOut(whatIf, page);
}

void writePlan(const Report& report, Markup& page) {
    for (const ReportedPlan& one : report.whatIf->changes) {
        page << "\n<tr><th>";
        writeLink(report, one.key, false, page);
        writeSide(one.today, page);
        writeSide(one.then, page);
    }
}

}  // namespace cli
