#include "apps/sdconfig/described/weighed_policies.h"

#include "apps/sdconfig/described/described_keys.h"
#include "apps/sdconfig/terminal/messages.h"

namespace cli {

int weighPolicies(const Request& request, std::vector<sd::PolicyEntry>& entries) {
    constexpr std::size_t kUndescribedMost = 5;  // that are told one by one
    if (request.unchecked) return kDone;
    sd::Descriptions descriptions = describedKeys(request);
    std::size_t undescribed = 0;
    std::size_t misfits = 0;
    for (sd::PolicyEntry& entry : entries) {
        const auto found = descriptions.find(entry.uri);
        if (!found) {
            if (!descriptions.isEmpty() && ++undescribed <= kUndescribedMost)
                noteUndescribed(entry.uri, descriptions.near(entry.uri));
        } else if (const Problem problem = misfit(*found, Target::Policy, entry.value)) {
            ++misfits;
            tellMisfit(request.file, entry.line, entry.uri, problem);
        } else if (found->description.isDeprecated) {
            noteDeprecated(entry.uri, found->description.replacedBy);
        }
    }
    if (undescribed > kUndescribedMost) noteUndescribed(undescribed - kUndescribedMost);
    noteLeftOut(descriptions);
    return misfits > 0 ? policiesMisfit(request, misfits) : kDone;
}

}  // namespace cli
