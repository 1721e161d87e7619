// policy lint: all that is wrong with files of the machine's policies, each by itself and all together.
#include <algorithm>

#include "apps/sdconfig/data_commands/data_commands.h"
#include "apps/sdconfig/reading/policy_lint.h"
#include "apps/sdconfig/terminal/colour.h"
#include "apps/sdconfig/terminal/messages.h"
#include "apps/sdconfig/terminal/output.h"

namespace cli {

namespace {

std::string lineOf(const LintFinding& finding) {
    const std::string kind = finding.isFault ? coloured("fault", Colour::Bad) : std::string("warning");
    return kind + ": " + shownInLine(finding.file) + (finding.place.empty() ? "" : ", " + finding.place) + ": " +
           escaped(finding.what) + "; next: " + escaped(finding.next) + "\n";
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

int lintPolicies(const Request& request, Service& /*service*/) {
    const LintResult result = lintPolicyFiles(request.keys);
    std::string text;
    Object object{{"findings", Object::array()}, {"files", result.files}, {"policies", result.policies}};
    for (const LintFinding& finding : result.findings) {
        text += lineOf(finding);
        object["findings"].push_back(objectOf(finding));
    }
    const bool ok = result.isSound(request.strict);
    object["ok"] = ok;
    if (ok)
        text +=
            "files " + std::to_string(result.files) + ", policies " + std::to_string(result.policies) + ", faults 0\n";
    const int printed = print(request, text, object);
    return ok ? printed : kRefused;
}

}  // namespace cli
