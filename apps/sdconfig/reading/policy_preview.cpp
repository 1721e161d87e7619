#include "apps/sdconfig/reading/policy_preview.h"

#include <algorithm>
#include <optional>

#include "apps/sdconfig/reading/data_access.h"
#include "apps/sdconfig/reading/stored_layers.h"
#include "apps/sdconfig/request/letter_case.h"
#include "apps/sdconfig/service/service.h"
#include "apps/sdconfig/terminal/messages.h"
#include "apps/sdconfig/terminal/output.h"
#include "libsdconfig/dmconfig.h"
#include "src/sdconfig_protocol.h"

namespace cli {

namespace {

constexpr auto kChunk = static_cast<std::size_t>(sd::protocol::kMaxElements);

struct Change {
    Effective before;
    std::optional<Effective> after;  // nothing: it depends on a local value that isn't known here
    std::string why;

    bool differs() const { return after && after->value != before.value; }
};

Change changeOf(const PlannedPolicy& planned, Layers layers) {
    Change change;
    change.before = weigh(layers);
    layers.policy = planned.policy;
    layers.policyUnreadable = false;
    change.after = weigh(layers);
    change.why = inWords(planned.uri, *change.after, layers.counting());
    if (layers.machine) change.why += "; the machine's policy counts, in " + layers.machine->place();
    return change;
}

// From what the service alone tells. A weak policy in force says that there is no local value to outweigh the new one.
Change changeOf(const PlannedPolicy& planned, const Effective& before,
                const std::optional<apps::MachinePolicy>& machine) {
    if (machine) return {before, before, "it is left as the machine's policy has it, in " + machine->place()};
    const bool strong = planned.policy && planned.policy->priority > sd::kLocalPriority;
    if (!strong && before.origin != Origin::WeakPolicy)
        return {before, std::nullopt,
                "it depends on the local value, which the service alone does not tell; --data-dir names its folder"};
    Change change = changeOf(planned, Layers());
    change.before = before;
    return change;
}

bool isSecret(const Effective& effective) {
    return effective.origin == Origin::Local || effective.origin == Origin::LocalOrPolicy;
}

std::string sideText(const Effective& side, bool show) {
    if (side.value.empty()) return "(no value)";
    return isSecret(side) && !show ? "(a local value)" : quoted(side.value);
}

Object sideObject(const Effective& side, bool show) {
    Object object{{"set", !side.value.empty()}, {"priority", side.priority}, {"origin", nameOf(side.origin)}};
    if (!side.value.empty() && (show || !isSecret(side))) addBytes(object, "value", side.value);
    return object;
}

std::string changeText(const PlannedPolicy& planned, const Change& change, bool show) {
    const std::string before = sideText(change.before, show);
    const std::string begin = shownInLine(planned.uri) + ": " + before;
    const std::string deleted = ": deleted, since the file doesn't name it";
    const std::string leaves = change.after ? ", which leaves " : "; ";
    const std::string end = (planned.policy ? ": " : deleted + leaves) + change.why + "\n";
    if (!change.after) return "? " + begin + " -> ?" + end;
    if (!change.differs()) return "= " + begin + end;
    return "~ " + begin + " -> " + sideText(*change.after, show) + end;
}

Object changeObject(const PlannedPolicy& planned, const Change& change, bool show) {
    Object object;
    addBytes(object, "uri", planned.uri);
    object["deletes"] = !planned.policy;
    object["changes"] = change.after ? Object(change.differs()) : Object();
    object["before"] = sideObject(change.before, show);
    object["after"] = change.after ? sideObject(*change.after, show) : Object();
    object["why"] = change.why;
    return object;
}

int printChanges(const Request& request, const std::vector<PlannedPolicy>& plan, const std::vector<Change>& changes) {
    std::string text;
    Object object{{"policies", Object::array()}};
    for (std::size_t i = 0; i < plan.size(); ++i) {
        text += changeText(plan[i], changes[i], request.show);
        object["policies"].push_back(changeObject(plan[i], changes[i], request.show));
    }
    return print(request, text, object);
}

}  // namespace

int readEffective(const std::vector<std::string>& uris, Service& service, std::map<std::string, Effective>& result) {
    for (std::size_t at = 0; at < uris.size(); at += kChunk) {
        const auto begin = uris.begin() + static_cast<std::ptrdiff_t>(at);
        const std::vector<std::string> chunk(begin,
                                             begin + static_cast<std::ptrdiff_t>(std::min(kChunk, uris.size() - at)));
        sd::PolicyList read;
        const auto answer = service.call(
            "GetPoliciesWithUris(", [&] { return sd::DMConfig::GetInstance()->GetPoliciesWithUris(chunk, &read); });
        if (answer.exitCode) return answer.exitCode;
        for (const std::string& uri : chunk) result[uri] = answered(read[uri]);
    }
    return kDone;
}

int previewPolicies(const Request& request, const std::vector<PlannedPolicy>& plan, Service& service) {
    const DataAccess access = accessData(request, service);
    if (access.exitCode) return access.exitCode;
    std::vector<std::string> uris;
    uris.reserve(plan.size());
    for (const PlannedPolicy& planned : plan) uris.push_back(planned.uri);
    std::map<std::string, Effective> before;
    if (const int code = readEffective(uris, service, before)) return code;
    StoredLayers stored;
    const bool known = access.reader && stored.read(*access.reader).empty();
    const MachineTable machine = machineTable(service);
    stored.governBy(machine);
    std::vector<Change> changes;
    for (const PlannedPolicy& planned : plan) {
        const Effective& answer = before.at(planned.uri);
        const Layers layers = known ? stored.of(planned.uri) : Layers();
        changes.push_back(known && agree(layers, answer) ? changeOf(planned, layers)
                                                         : changeOf(planned, answer, machine.find(planned.uri)));
    }
    return printChanges(request, plan, changes);
}

std::vector<MachineChange> changesUnder(const StoredLayers& layers, const MachineTable& after) {
    std::map<std::string, std::string> uris;  // as a person reads them, by the URI without letter case
    for (const apps::MachinePolicy& one : layers.machine().all()) uris[folded(one.uri)] = one.uri;
    for (const apps::MachinePolicy& one : after.all()) uris[folded(one.uri)] = one.uri;
    std::vector<MachineChange> changes;
    for (const auto& [name, uri] : uris) {
        MachineChange change{uri, layers.of(uri), {}};
        change.after = change.before;
        change.after.machine = after.find(uri);
        changes.push_back(std::move(change));
    }
    return changes;
}

int previewMachine(const Request& request, const StoredLayers& layers, const MachineTable& after) {
    std::vector<PlannedPolicy> plan;
    std::vector<Change> changes;
    for (const auto& [uri, before, then] : changesUnder(layers, after)) {
        Change change{weigh(before), weigh(then), ""};
        change.why = inWords(uri, *change.after, then.counting());
        if (then.machine) change.why += "; " + then.machine->place();
        plan.push_back({uri, apps::Policy()});
        changes.push_back(std::move(change));
    }
    return printChanges(request, plan, changes);
}

}  // namespace cli
