#include "apps/sdconfig/reading/lint_output.h"

#include <algorithm>

#include "apps/sdconfig/terminal/colour.h"
#include "apps/sdconfig/terminal/messages.h"
#include "apps/sdconfig/terminal/output.h"

namespace cli {

namespace {

std::string lineOf(const LintFinding& finding) {
    const std::string kind = finding.isFault ? coloured("fault", Colour::Bad) : std::string("warning");
    const std::string file =
        finding.file.empty() ? "" : shownInLine(finding.file) + (finding.place.empty() ? "" : ", ");
    return kind + ": " + file + finding.place + ": " + escaped(finding.what) + "; next: " + escaped(finding.next) +
           "\n";
}

Object objectOf(const LintFinding& finding) {
    Object object{{"fault", finding.isFault}};
    addBytes(object, "file", finding.file);
    object["line"] = finding.line ? Object(finding.line) : Object();
    finding.uri.empty() ? void(object["uri"] = nullptr) : addBytes(object, "uri", finding.uri);
    addBytes(object, "what", finding.what);
    addBytes(object, "next", finding.next);
    return object;
}

}  // namespace

bool LintResult::isSound(bool warningsToo) const {
    return std::none_of(findings.begin(), findings.end(),
                        [&](const LintFinding& one) { return one.isFault || warningsToo; });
}

int printLint(const Request& request, const LintResult& result, const char* entries) {
    std::string text;
    Object object{{"findings", Object::array()}, {"files", result.files}, {entries, result.entries}};
    for (const LintFinding& finding : result.findings) {
        text += lineOf(finding);
        object["findings"].push_back(objectOf(finding));
    }
    const bool ok = result.isSound(request.strict);
    object["ok"] = ok;
    if (ok)
        text += "files " + std::to_string(result.files) + ", " + entries + " " + std::to_string(result.entries) +
                ", faults 0\n";
    const int printed = print(request, text, object);
    return ok ? printed : kRefused;
}

}  // namespace cli
