// The slots of the page's template, each with what fills it. For its own files only.
#pragma once

#include "apps/sdconfig/report/markup.h"
#include "apps/sdconfig/report/report.h"

namespace cli {

// page_summary.cpp
void writeVerdict(const Report& report, Markup& page);
void writeWords(const Report& report, Markup& page);
void writeTally(const Report& report, Markup& page);
void writeFindings(const Report& report, Markup& page);
void writeUnseen(const Report& report, Markup& page);
void writeEnvironment(const Report& report, Markup& page);

// page_keys.cpp
void writeKeys(const Report& report, Markup& page);
void writePlanWords(const Report& report, Markup& page);
void writePlan(const Report& report, Markup& page);
void writeSource(Source source, Markup& page);  // as a badge

// page_files.cpp
void writePolicyFiles(const Report& report, Markup& page);
void writePropertyFiles(const Report& report, Markup& page);

// page_trail.cpp
void writeTrailWords(const Report& report, Markup& page);
void writeTrail(const Report& report, Markup& page);

// The key, as a link to its line where it has one.
void writeLink(const Report& report, const std::string& key, bool isProperty, Markup& page);

}  // namespace cli
