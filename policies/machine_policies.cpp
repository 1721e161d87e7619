#include "policies/machine_policies.h"

#include <algorithm>

#include "base/letter_case.h"

namespace sd {

namespace {

bool isLess(const MachinePolicies::Policy& one, const MachinePolicies::Policy& other) {
    return compareFolded(one.entry->uri, other.entry->uri) < 0;
}

bool isSame(const MachinePolicies::Policy& one, const MachinePolicies::Policy& other) {
    return one.entry->value == other.entry->value && one.entry->priority == other.entry->priority;
}

const std::vector<MachinePolicies::Policy>& policiesOf(const MachinePolicies* machine) {
    static const std::vector<MachinePolicies::Policy> sNone;
    return machine ? machine->all() : sNone;
}

}  // namespace

MachinePolicies::MachinePolicies(std::vector<File> files, const std::function<bool(const PolicyEntry&)>& isMeant,
                                 PolicyReadingStatus status)
    : mFiles(std::move(files)), mStatus(std::move(status)) {
    // From the last file to the first, and the order kept: of a URI's policies the first one then is the one that
    // counts.
    for (std::size_t i = mFiles.size(); i-- > 0;)
        for (const PolicyEntry& entry : *mFiles[i].entries)
            if (isMeant(entry)) mPolicies.push_back({&entry, static_cast<std::uint32_t>(i)});
    std::stable_sort(mPolicies.begin(), mPolicies.end(), isLess);
    const auto isSameUri = [](const Policy& one, const Policy& other) { return !isLess(one, other); };
    mPolicies.erase(std::unique(mPolicies.begin(), mPolicies.end(), isSameUri), mPolicies.end());
    mPolicies.shrink_to_fit();
}

const MachinePolicies::Policy* MachinePolicies::find(const std::string& uri) const {
    const auto found =
        std::lower_bound(mPolicies.begin(), mPolicies.end(), uri,
                         [](const Policy& one, const auto& name) { return compareFolded(one.entry->uri, name) < 0; });
    return found != mPolicies.end() && compareFolded(found->entry->uri, uri) == 0 ? &*found : nullptr;
}

std::vector<MachinePolicies::Policy>::const_iterator MachinePolicies::after(const std::string& uri) const {
    return std::upper_bound(mPolicies.begin(), mPolicies.end(), uri, [](const auto& name, const Policy& one) {
        return compareFolded(name, one.entry->uri) < 0;
    });
}

std::vector<std::string> changedUris(const MachinePolicies* before, const MachinePolicies* after) {
    std::vector<std::string> changed;
    auto old = policiesOf(before).begin();
    auto now = policiesOf(after).begin();
    const auto oldEnd = policiesOf(before).end();
    const auto nowEnd = policiesOf(after).end();
    while (old != oldEnd || now != nowEnd) {
        if (now == nowEnd || (old != oldEnd && isLess(*old, *now))) {
            changed.push_back((old++)->entry->uri);
        } else if (old == oldEnd || isLess(*now, *old)) {
            changed.push_back((now++)->entry->uri);
        } else {
            if (!isSame(*old, *now)) changed.push_back(now->entry->uri);
            ++old;
            ++now;
        }
    }
    return changed;
}

}  // namespace sd
