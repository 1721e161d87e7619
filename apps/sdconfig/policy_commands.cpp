// policy set, get, delete, list, strong and clear.
#include "apps/sdconfig/commands.h"
#include "apps/sdconfig/confirmation.h"
#include "apps/sdconfig/effective.h"
#include "apps/sdconfig/messages.h"
#include "apps/sdconfig/output.h"
#include "apps/sdconfig/policy_value.h"
#include "apps/sdconfig/property_clash.h"
#include "apps/sdconfig/service.h"
#include "apps/sdconfig/stored_policies.h"
#include "apps/sdconfig/table.h"
#include "libsdconfig/dmconfig.h"

namespace cli {

namespace {

sd::DMConfig& policies() {
    return *sd::DMConfig::GetInstance();
}

Object uriObject(const Request& request) {
    Object object;
    addBytes(object, "uri", request.key);
    return object;
}

int printChange(const Request& request, Object object, bool done) {
    object["done"] = done;
    const int printed = print(request, "", object);
    return done ? printed : policyRefused(request);
}

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

// What comes back instead of a policy is local.
void noteWhereHidden(const Request& request, int priority) {
    const Effective now = answered(policies().GetPolicyWithUri(request.key));
    if (now.value != request.value || now.priority != priority) noteHidden(request.key, !now.value.empty());
}

Fields listedFields(const Listed& listed) {
    const auto& [uri, policy] = listed.stored;
    return {shownInLine(uri), policy ? std::to_string(policy->priority) : "-",
            policy ? shownInLine(policy->value) : "(can't be read)", stateOf(listed)};
}

}  // namespace

int setPolicy(const Request& request, Service& service) {
    const auto priority = parsePriority(request.priority);
    if (!priority)
        return unfitPolicy(request, {"PRIORITY has to be a whole number from 0 to 127",
                                     "above 5 it overrides whatever is set locally, from 0 to 5 it is a default"});
    if (const std::string unfit = unfitPolicyValue(request.value); !unfit.empty())
        return unfitPolicy(request, {"VALUE " + unfit, "give another value, or \"\" for none"});
    if (const int code = service.require()) return code;
    const bool onlyProperty = isOnlyProperty(request.key, answered(policies().GetPolicyWithUri(request.key)));
    const auto [done, code] = service.call("SetPolicyWithUri key", request.key, [&, p = *priority] {
        return policies().SetPolicyWithUri(request.key, {{request.value, p}});
    });
    if (code) return code;
    if (done && onlyProperty) noteProperty(request.key);
    if (done) noteWhereHidden(request, *priority);
    return printChange(request, uriObject(request), done);
}

int getPolicy(const Request& request, Service& service) {
    if (const int code = service.require()) return code;
    const auto [policy, code] =
        service.call("GetPolicyWithUri key", request.key, [&] { return policies().GetPolicyWithUri(request.key); });
    if (code) return code;
    const Effective effective = answered(policy);
    const bool set = !effective.value.empty();
    Object object = uriObject(request);
    object["set"] = set;
    set ? addBytes(object, "value", effective.value) : void(object["value"] = nullptr);
    object["priority"] = effective.priority;
    const int printed = print(request, set ? shown(effective.value) + "\n" : "", object);
    return set ? printed : policyUnset(request);
}

int deletePolicy(const Request& request, Service& service) {
    if (const int code = service.require()) return code;
    const auto [done, code] = service.call("DeletePolicyWithUri key", request.key,
                                           [&] { return policies().DeletePolicyWithUri(request.key); });
    return code ? code : printChange(request, uriObject(request), done);
}

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

int showStrong(const Request& request, Service& service) {
    if (const int code = service.require()) return code;
    const auto [strong, code] =
        service.call("isStrongControl key", request.key, [&] { return policies().isStrongControl(request.key); });
    if (code) return code;
    Object object = uriObject(request);
    object["strong"] = strong;
    const int printed = print(request, strong ? "strong\n" : "not strong\n", object);
    return strong ? printed : kRefused;
}

int clearPolicies(const Request& request, Service& service) {
    if (!canConfirm(request)) return notAskable(request, "all policies");
    if (const int code = service.require()) return code;
    if (!confirmed(request, "Delete all policies?")) return notConfirmed(request);
    const auto [done, code] = service.call("ClearAllKeys(", [&] { return policies().ClearAllKeys(); });
    return code ? code : printChange(request, Object(), done);
}

}  // namespace cli
