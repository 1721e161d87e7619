// How the effective value of a secure key comes about: a policy weighed against the local value.
#pragma once

#include <optional>
#include <string>

#include "apps/common/policy.h"
#include "libsdconfig/sdconfig_types.h"

namespace cli {

enum class Origin {
    StrongPolicy,  // above priority 5, whatever is set locally
    Local,
    WeakPolicy,  // there is no local value
    EmptyRow,    // a weak policy is hidden by a local row without a value
    Unset,
    LocalOrPolicy,  // one of the two, at priority 5: the service alone tells no more
    UnsetOrHidden,  // likewise
};

// What the data folder holds of a key, and the files of the machine's policies.
struct Layers {
    enum class Row { None, Empty, Value, Unreadable };

    std::optional<apps::MachinePolicy> machine;
    std::optional<apps::Policy> policy;  // the stored one, which counts where the machine has none
    bool policyUnreadable = false;
    std::string policyFault;  // why it is that: "belongs to another row"
    Row row = Row::None;
    bool rowHidesPolicy = false;  // the row is spelled exactly like the key: in another letter case it hides nothing
    std::string rowFault;         // why it is unreadable, likewise
    std::string local;

    // The policy that counts, whether it is in force or not.
    std::optional<apps::Policy> counting() const { return machine ? std::optional(machine->policy) : policy; }
};

struct Effective {
    std::string value;
    int priority;
    Origin origin;
};

Effective weigh(const Layers& layers);

// What the service's answer to a look-up of the key tells of its origin, and the value as it was set.
Effective answered(const sd::PolicyMap& policy);

// Whether the service's answer is what the layers give: whether they are the service's, and as they are now.
bool agree(const Layers& layers, const Effective& answer);

// The policy that an empty local row hides.
std::optional<apps::Policy> hiddenPolicy(const Layers& layers);

// The origin in words, without a value. policy: what stands there, whether it is in force or not.
std::string inWords(const std::string& key, const Effective& effective, const std::optional<apps::Policy>& policy);

// The origin in JSON.
const char* nameOf(Origin origin);

}  // namespace cli
