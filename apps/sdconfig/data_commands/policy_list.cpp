// policy list: the stored policies and the machine's, and which of them are in force.
#include <algorithm>
#include <iterator>

#include "apps/sdconfig/data_commands/data_commands.h"
#include "apps/sdconfig/policy/effective.h"
#include "apps/sdconfig/reading/machine_table.h"
#include "apps/sdconfig/reading/stored_layers.h"
#include "apps/sdconfig/reading/stored_policies.h"
#include "apps/sdconfig/terminal/output.h"
#include "apps/sdconfig/terminal/table.h"

namespace cli {

namespace {

struct Listed {
    std::string uri;
    std::optional<apps::Policy> policy;          // nothing: there is one, and it can't be read
    std::optional<apps::MachinePolicy> machine;  // that governs the URI
    bool isMachine;                              // whether it is that one, else the stored one
    std::optional<Origin> winner;                // what gives the key its value; nothing: it can't be told

    bool counts() const { return policy && (isMachine || !machine); }
    bool inForce() const { return counts() && (winner == Origin::StrongPolicy || winner == Origin::WeakPolicy); }
};

// What gives a value to the URI of each policy. A strong one does, whatever is set locally; of others the data tells.
std::vector<Listed> judged(const StoredPolicies& stored, const MachineTable& machine) {
    StoredLayers data;
    const bool known = stored.reader && data.read(*stored.reader).empty();
    std::vector<Listed> all;
    const auto add = [&](const std::string& uri, const std::optional<apps::Policy>& policy, bool isMachine) {
        Layers layers = known ? data.of(uri) : Layers();
        layers.policy = policy;
        layers.machine = machine.find(uri);
        const Origin winner = weigh(layers).origin;
        all.push_back({uri, policy, layers.machine, isMachine,
                       known || winner == Origin::StrongPolicy ? std::optional(winner) : std::nullopt});
    };
    for (const apps::MachinePolicy& one : machine.all()) add(one.uri, one.policy, true);
    for (const StoredPolicy& one : stored.all) add(one.uri, one.policy, false);
    std::stable_sort(all.begin(), all.end(), [](const Listed& a, const Listed& b) { return a.uri < b.uri; });
    return all;
}

Object listedObject(const Listed& listed) {
    const auto& [uri, policy, machine, isMachine, winner] = listed;
    Object object;
    addBytes(object, "uri", uri);
    object["readable"] = policy.has_value();
    if (policy) {
        addBytes(object, "value", policy->value);
        object["priority"] = policy->priority;
    }
    object["in_force"] = !listed.counts() || winner ? Object(listed.inForce()) : Object();
    object["origin"] = winner ? Object(nameOf(*winner)) : Object();
    if (!machine) return object;
    object["source"] = isMachine ? "machine" : "stored";
    addBytes(object, "file", machine->file);
    object["line"] = machine->line;
    if (!machine->description.empty()) addBytes(object, "description", machine->description);
    return object;
}

std::string stateAlone(const Listed& listed) {
    if (!listed.policy) return "not in force";
    if (!listed.winner) return "it can't be told";
    switch (*listed.winner) {
        case Origin::StrongPolicy:
            return "in force";
        case Origin::WeakPolicy:
            return "in force, as a default";
        case Origin::Local:
            return "hidden by a local value";
        default:
            return "hidden by an empty local row";
    }
}

std::string stateOf(const Listed& listed) {
    if (!listed.machine) return stateAlone(listed);
    const std::string place = shownInLine(listed.machine->place());
    return listed.isMachine ? stateAlone(listed) + ": " + place : "outweighed by the machine's: " + place;
}

Fields listedFields(const Listed& listed) {
    const std::optional<apps::Policy>& policy = listed.policy;
    return {shownInLine(listed.uri), policy ? std::to_string(policy->priority) : "-",
            policy ? shownInLine(policy->value) : "(can't be read)", stateOf(listed)};
}

}  // namespace

int listPolicies(const Request& request, Service& service) {
    const StoredPolicies stored = storedPolicies(request, service);
    if (stored.exitCode) return stored.exitCode;
    std::vector<Fields> lines;
    Object object{{"policies", Object::array()}, {"complete", !stored.cut}};
    for (const Listed& one : judged(stored, machineTable(service))) {
        lines.push_back(listedFields(one));
        object["policies"].push_back(listedObject(one));
    }
    return print(request, table({"URI", "PRIORITY", "VALUE", "STATE"}, lines), object);
}

}  // namespace cli
