// The keys of secure values and of policies: what counts, and what lost.
#include <algorithm>
#include <utility>

#include "apps/sdconfig/reading/policy_preview.h"
#include "apps/sdconfig/report/gather_parts.h"
#include "apps/sdconfig/request/letter_case.h"
#include "libsdconfig/dmconfig.h"
#include "src/sdconfig_protocol.h"

namespace cli {

namespace {

using Names = std::map<std::string, std::string>;  // as a person reads them, by the key without letter case
using Answers = std::map<std::string, Effective>;  // the service's, by the key

// Where the folder can't be read, the policies that the service lists are all that is to be had.
void addListed(Gathering& gathering, Names& names) {
    sd::PolicyList list;
    const auto answer =
        gathering.service.call("GetAllKeys(", [&] { return sd::DMConfig::GetInstance()->GetAllKeys(&list); });
    if (answer.exitCode) return;
    for (const auto& [uri, policy] : list) names.emplace(folded(uri), uri);
    if (list.size() >= sd::protocol::kMaxElements)
        gathering.miss("Policies beyond the first " + std::to_string(list.size()) + ": the service lists no more",
                       "name the data folder with --data-dir");
}

Names namesOf(Gathering& gathering) {
    Names names = gathering.stored.keys();
    if (!gathering.isStoredKnown && gathering.probe.answered) addListed(gathering, names);
    for (const apps::MachinePolicy& one : gathering.report.policies.all()) names.emplace(folded(one.uri), one.uri);
    for (const auto& [key, store] : gathering.described)
        if (store == sd::KeyStore::Secure) names.emplace(folded(key), key);
    return names;
}

std::optional<Answers> ask(Gathering& gathering, const Names& names) {
    if (!gathering.probe.answered || names.empty()) return std::nullopt;
    std::vector<std::string> keys;
    keys.reserve(names.size());
    for (const auto& [name, key] : names) keys.push_back(key);
    Answers answers;
    if (readEffective(keys, gathering.service, answers) == kDone) return answers;
    gathering.miss("The values as the service gives them: it did not answer", howToRestart());
    return std::nullopt;
}

std::string ofPriority(const apps::Policy& policy) {
    return " of priority " + std::to_string(policy.priority);
}

// One file of a name counts, whatever its folder; the page has the whole paths once.
std::string placeOf(const apps::MachinePolicy& policy) {
    return policy.file.substr(policy.file.rfind('/') + 1) + ", line " + std::to_string(policy.line);
}

bool isPolicys(Origin origin) {
    return origin == Origin::StrongPolicy || origin == Origin::WeakPolicy;
}

// Why the policy that would count doesn't.
std::string outweighedBy(Origin origin) {
    return origin == Origin::Local ? ": a local value outweighs 5 or less" : ": an empty local row hides it";
}

std::vector<std::string> lostLayers(const Layers& layers, Origin origin) {
    std::vector<std::string> lost;
    const bool isTold = isPolicys(origin) || origin == Origin::EmptyRow;  // by the words on what counts
    if (layers.machine && !isPolicys(origin))
        lost.push_back("a policy of the machine" + ofPriority(layers.machine->policy) + ", in " +
                       placeOf(*layers.machine) + outweighedBy(origin));
    if (layers.policyUnreadable) lost.push_back("a stored policy that can't be read: it " + layers.policyFault);
    if (layers.policy && layers.machine)
        lost.push_back("a stored policy" + ofPriority(*layers.policy) + ": the machine's stands in its place");
    else if (layers.policy && !isTold)
        lost.push_back("a stored policy" + ofPriority(*layers.policy) + outweighedBy(origin));
    if (layers.row == Layers::Row::Value && isPolicys(origin))
        lost.emplace_back("a local value: the policy stands above 5");
    if (layers.row == Layers::Row::Unreadable)
        lost.push_back("a local value that reads as empty: it " + layers.rowFault);
    if (layers.row == Layers::Row::Empty && isPolicys(origin))
        lost.emplace_back(origin == Origin::StrongPolicy ? "an empty local row: the policy stands above 5"
                                                         : "an empty local row in another letter case hides nothing");
    return lost;
}

ReportedKey keyOf(Gathering& gathering, const std::string& key, const std::optional<Effective>& answer) {
    Layers layers = gathering.stored.of(key);
    Effective effective = gathering.isStoredKnown || !answer ? weigh(layers) : *answer;
    const bool isOther = gathering.isStoredKnown && answer && !agree(layers, *answer);
    if (isOther) effective = *answer;

    ReportedKey result;
    result.key = key;
    result.source = sourceOf(effective, layers.machine.has_value());
    result.value = gathering.visibility.of(effective, layers.machine);
    const bool isSealed = layers.policyUnreadable || layers.row == Layers::Row::Unreadable;
    result.why = !isOther   ? whyOf(key, effective, layers)
                 : isSealed ? "so the service answers"
                            : "so the service answers; the data folder holds something else";
    if (result.source == Source::Machine) {
        result.place = placeOf(*layers.machine);
        result.description = layers.machine->description;
    }
    if (gathering.isStoredKnown && !isOther) result.lost = lostLayers(layers, effective.origin);
    describe(gathering, effective.value, result);
    return result;
}

// Their keys are compared exactly by the service, and spelled by clients in more than one way.
std::map<std::string, int> listenersByName(const Gathering& gathering) {
    std::map<std::string, int> all;
    if (gathering.listeners)
        for (const auto& [key, clients] : *gathering.listeners) all[folded(key)] += clients;
    return all;
}

}  // namespace

Source sourceOf(const Effective& effective, bool isOfMachine) {
    switch (effective.origin) {
        case Origin::StrongPolicy:
        case Origin::WeakPolicy:
            return isOfMachine ? Source::Machine : Source::Policy;
        case Origin::Local:
            return Source::Local;
        case Origin::EmptyRow:
            return Source::HiddenByRow;
        case Origin::LocalOrPolicy:
            return Source::Unclear;
        default:
            return Source::Unset;
    }
}

std::string whyOf(const std::string& key, const Effective& effective, const Layers& layers) {
    const std::string priority = "priority " + std::to_string(effective.priority);
    const std::string nothing = effective.value.empty() ? ", sets no value" : "";
    switch (effective.origin) {
        case Origin::Local:
        case Origin::Unset:
            return "";
        case Origin::StrongPolicy:
            return priority + nothing + ", overrides what is set locally";
        case Origin::WeakPolicy:
            return priority + nothing + "; nothing is set locally";
        default:
            return inWords(key, effective, layers.counting());
    }
}

void gatherSettings(Gathering& gathering) {
    const Names names = namesOf(gathering);
    const std::optional<Answers> answers = ask(gathering, names);
    const std::map<std::string, int> listeners = listenersByName(gathering);
    for (const auto& [name, key] : names) {
        const auto answer = answers ? std::optional(answers->at(key)) : std::nullopt;
        ReportedKey one = keyOf(gathering, key, answer);
        if (const auto change = gathering.history.settings.find(name); change != gathering.history.settings.end())
            one.change = change->second;
        if (gathering.listeners) {
            const auto found = listeners.find(name);
            one.listeners = found == listeners.end() ? 0 : found->second;
        }
        gathering.report.keys.push_back(std::move(one));
    }
}

}  // namespace cli
