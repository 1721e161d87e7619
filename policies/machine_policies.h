// The machine's policies as they stand after one reading of their folders: what governs which URI, and what was read.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "policies/policy_file.h"

namespace sd {

// A folder or a file of a reading.
struct PolicySource {
    enum class State {
        Read,      // a folder that is there; a file whose policies are in force
        Absent,    // a folder alone
        Masks,     // a file that is empty or a link to /dev/null: no file of its name counts
        Replaced,  // a file whose place one of the same name in a later folder takes
        LeftOut,   // nothing of it counts
        Kept,      // a file that can't be used as it is; what it held before stays in force
    };

    std::string path;
    State state;
    std::string detail;        // why it is left out or kept; what replaces it
    std::size_t policies = 0;  // that a file holds, for whomever
};

struct PolicyReadingStatus {
    std::chrono::system_clock::time_point when;
    std::vector<PolicySource> folders;          // in their order: a later one's file replaces an earlier one's
    std::vector<PolicySource> files;            // in the order of their names; of one name, that of the folders
    std::map<std::string, std::string> nobody;  // whom "users" names without success, and why
    bool hasLinks = false;                      // something was reached through a symbolic link
    bool hasFailures = false;                   // something went wrong that another try may find right
    bool isShort = false;                       // memory or descriptors were lacking for something
};

// Immutable, so any number of threads may use it. It keeps the entries of the files as they were read, and adds 16
// bytes to each.
class MachinePolicies {
public:
    using Entries = std::shared_ptr<const std::vector<PolicyEntry>>;

    struct File {
        std::string path;
        Entries entries;
    };

    struct Policy {
        const PolicyEntry* entry;
        std::uint32_t file;
    };

    // files: in the order of their names; of a URI that several have, the last one's counts. isMeant: whether a policy
    // is for the service's own user.
    MachinePolicies(std::vector<File> files, const std::function<bool(const PolicyEntry&)>& isMeant,
                    PolicyReadingStatus status = {});

    // Null where no file has the URI, which is compared without regard to letter case.
    const Policy* find(const std::string& uri) const;

    // In the order of the URIs, without regard to letter case.
    const std::vector<Policy>& all() const { return mPolicies; }
    std::vector<Policy>::const_iterator after(const std::string& uri) const;  // the first of those behind it

    const std::string& pathOf(const Policy& policy) const { return mFiles[policy.file].path; }
    const PolicyReadingStatus& status() const { return mStatus; }

private:
    std::vector<File> mFiles;
    std::vector<Policy> mPolicies;
    PolicyReadingStatus mStatus;
};

// The URIs whose policies differ between the two, in their order, as the later one spells them where it has them. Null
// stands for no policies.
std::vector<std::string> changedUris(const MachinePolicies* before, const MachinePolicies* after);

}  // namespace sd
