// The policies of the machine as a command sees them.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "apps/common/policy.h"
#include "policies/machine_policies.h"

namespace cli {

class Service;

// By the URI, whatever its letter case.
class MachineTable {
public:
    MachineTable() = default;
    explicit MachineTable(std::vector<apps::MachinePolicy> policies);
    explicit MachineTable(const sd::MachinePolicies& policies);

    std::optional<apps::MachinePolicy> find(const std::string& uri) const;
    const std::vector<apps::MachinePolicy>& all() const { return mPolicies; }

private:
    std::vector<apps::MachinePolicy> mPolicies;  // in the order of their URIs without letter case
};

// Reads the folders as a service of this user would at its start. owner: who may have made what is in them, beside
// root.
std::shared_ptr<const sd::MachinePolicies> readPolicyFolders(const std::vector<std::string>& folders, uid_t owner);

// What governs this user: by the service that listens; without one, by the standard folders.
MachineTable machineTable(const Service& service);

// How the last reading of the folders went.
struct MachineStatus {
    bool isHere = true;        // whether there are such policies at all
    bool byService = true;     // else they were read here
    bool isWatching = false;   // changes are noticed at once
    std::size_t governed = 0;  // URIs
    sd::PolicyReadingStatus reading;
};

// Nothing where the service that listens doesn't tell.
std::optional<MachineStatus> machineStatus(const Service& service);

// What is left out, or kept as it was before.
bool isAmiss(const sd::PolicySource& source);

}  // namespace cli
