// policy lint: all that is wrong with files of the machine's policies, each by itself and all together.
#include "apps/sdconfig/reading/policy_lint.h"
#include "apps/sdconfig/data_commands/data_commands.h"
#include "apps/sdconfig/described/described_keys.h"

namespace cli {

int lintPolicies(const Request& request, Service& /*service*/) {
    sd::Descriptions descriptions;
    if (!request.unchecked) descriptions = describedKeys(request);
    const LintResult result = lintPolicyFiles(request.keys, descriptions);
    noteLeftOut(descriptions);
    return printLint(request, result, "policies");
}

}  // namespace cli
