// policy list: the stored policies, and which of them are in force.
#include "apps/sdconfig/data_commands/data_commands.h"
#include "apps/sdconfig/policy/effective.h"
#include "apps/sdconfig/reading/stored_layers.h"
#include "apps/sdconfig/reading/stored_policies.h"
#include "apps/sdconfig/terminal/output.h"
#include "apps/sdconfig/terminal/table.h"

namespace cli {

namespace {

struct Listed {
    StoredPolicy stored;
    std::optional<Origin> winner;  // what gives the key its value; nothing: it can't be told

    bool inForce() const { return stored.policy && (winner == Origin::StrongPolicy || winner == Origin::WeakPolicy); }
};

// What gives a value to the URI of each policy. A strong one does, whatever is set locally; of others the data tells.
std::vector<Listed> judged(const StoredPolicies& stored) {
    StoredLayers data;
    const bool known = stored.reader && data.read(*stored.reader).empty();
    std::vector<Listed> all;
    for (const StoredPolicy& one : stored.all) {
        Layers layers = known ? data.of(one.uri) : Layers();
        layers.policy = one.policy;
        const Origin winner = weigh(layers).origin;
        all.push_back({one, known || winner == Origin::StrongPolicy ? std::optional(winner) : std::nullopt});
    }
    return all;
}

Object listedObject(const Listed& listed) {
    const auto& [uri, policy] = listed.stored;
    Object object;
    addBytes(object, "uri", uri);
    object["readable"] = policy.has_value();
    if (policy) {
        addBytes(object, "value", policy->value);
        object["priority"] = policy->priority;
    }
    object["in_force"] = !policy || listed.winner ? Object(listed.inForce()) : Object();
    object["origin"] = listed.winner ? Object(nameOf(*listed.winner)) : Object();
    return object;
}

std::string stateOf(const Listed& listed) {
    if (!listed.stored.policy) return "not in force";
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

Fields listedFields(const Listed& listed) {
    const auto& [uri, policy] = listed.stored;
    return {shownInLine(uri), policy ? std::to_string(policy->priority) : "-",
            policy ? shownInLine(policy->value) : "(can't be read)", stateOf(listed)};
}

}  // namespace

int listPolicies(const Request& request, Service& service) {
    const StoredPolicies stored = storedPolicies(request, service);
    if (stored.exitCode) return stored.exitCode;
    std::vector<Fields> lines;
    Object object{{"policies", Object::array()}, {"complete", !stored.cut}};
    for (const Listed& one : judged(stored)) {
        lines.push_back(listedFields(one));
        object["policies"].push_back(listedObject(one));
    }
    return print(request, table({"URI", "PRIORITY", "VALUE", "STATE"}, lines), object);
}

}  // namespace cli
