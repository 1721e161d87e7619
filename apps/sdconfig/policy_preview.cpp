#include "apps/sdconfig/policy_preview.h"

#include <algorithm>
#include <optional>

#include "apps/sdconfig/data_access.h"
#include "apps/sdconfig/messages.h"
#include "apps/sdconfig/output.h"
#include "apps/sdconfig/service.h"
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

Change changeOf(const PolicyEntry& entry, Layers layers) {
    Change change;
    change.before = weigh(layers);
    layers.policy = apps::Policy{entry.value, entry.priority};
    layers.policyUnreadable = false;
    change.after = weigh(layers);
    change.why = inWords(*change.after, layers.policy);
    return change;
}

// From what the service alone tells. A weak policy in force says that there is no local value to outweigh the new one.
Change changeOf(const PolicyEntry& entry, const Effective& before) {
    Change change{before, std::nullopt,
                  "it depends on the local value, which the service alone does not tell; --data-dir names its folder"};
    const bool strong = entry.priority > sd::kLocalPriority;
    if (!strong && before.origin != Origin::WeakPolicy) return change;
    change.after = {entry.value, entry.priority, strong ? Origin::StrongPolicy : Origin::WeakPolicy};
    change.why = inWords(*change.after, std::nullopt);
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

std::string changeText(const std::string& uri, const Change& change, bool show) {
    const std::string before = sideText(change.before, show);
    const std::string begin = escaped(uri) + ": " + before;
    if (!change.after) return "? " + begin + " -> ?: " + change.why + "\n";
    if (!change.differs()) return "= " + begin + ": " + change.why + "\n";
    return "~ " + begin + " -> " + sideText(*change.after, show) + ": " + change.why + "\n";
}

Object changeObject(const std::string& uri, const Change& change, bool show) {
    Object object{{"uri", uri}};
    object["changes"] = change.after ? Object(change.differs()) : Object();
    object["before"] = sideObject(change.before, show);
    object["after"] = change.after ? sideObject(*change.after, show) : Object();
    object["why"] = change.why;
    return object;
}

int printChanges(const Request& request, const std::vector<PolicyEntry>& entries, const std::vector<Change>& changes) {
    std::string text;
    Object object{{"policies", Object::array()}};
    for (std::size_t i = 0; i < entries.size(); ++i) {
        text += changeText(entries[i].uri, changes[i], request.show);
        object["policies"].push_back(changeObject(entries[i].uri, changes[i], request.show));
    }
    return print(request, text, object);
}

}  // namespace

int readEffective(const std::vector<PolicyEntry>& entries, Service& service, std::map<std::string, Effective>& result) {
    for (std::size_t at = 0; at < entries.size(); at += kChunk) {
        std::vector<std::string> uris;
        for (std::size_t i = at; i < std::min(at + kChunk, entries.size()); ++i) uris.push_back(entries[i].uri);
        sd::PolicyList read;
        const auto answer = service.call("GetPoliciesWithUris(", [&, &chunk = uris] {
            return sd::DMConfig::GetInstance()->GetPoliciesWithUris(chunk, &read);
        });
        if (answer.exitCode) return answer.exitCode;
        for (const std::string& uri : uris) result[uri] = answered(read[uri]);
    }
    return kDone;
}

int previewPolicies(const Request& request, const std::vector<PolicyEntry>& entries, Service& service) {
    const DataAccess access = accessData(request, service);
    if (access.exitCode) return access.exitCode;
    std::map<std::string, Effective> before;
    if (const int code = readEffective(entries, service, before)) return code;
    StoredLayers stored;
    const bool known = access.reader && stored.read(*access.reader).empty();
    std::vector<Change> changes;
    for (const PolicyEntry& entry : entries) {
        const Effective& answer = before.at(entry.uri);
        const Layers layers = known ? stored.of(entry.uri) : Layers();
        changes.push_back(known && agree(layers, answer) ? changeOf(entry, layers) : changeOf(entry, answer));
    }
    return printChanges(request, entries, changes);
}

}  // namespace cli
