// policy apply: sets the policies of a file.
#include <algorithm>
#include <cstddef>
#include <map>
#include <optional>
#include <set>

#include "apps/sdconfig/data_commands/data_commands.h"
#include "apps/sdconfig/described/weighed_policies.h"
#include "apps/sdconfig/files/whole_file.h"
#include "apps/sdconfig/policy/property_clash.h"
#include "apps/sdconfig/reading/machine_table.h"
#include "apps/sdconfig/reading/policy_preview.h"
#include "apps/sdconfig/reading/stored_policies.h"
#include "apps/sdconfig/request/letter_case.h"
#include "apps/sdconfig/service/service.h"
#include "apps/sdconfig/terminal/confirmation.h"
#include "apps/sdconfig/terminal/messages.h"
#include "apps/sdconfig/terminal/output.h"
#include "libsdconfig/dmconfig.h"
#include "policies/policy_file.h"
#include "src/sdconfig_protocol.h"

namespace cli {

namespace {

using sd::PolicyEntry;

// A list of ten thousand policies takes about one; nobody needs more at once.
constexpr std::size_t kMaxFileBytes = 16u << 20;

// One call's share. The wire takes 122; a policy costs the service a durable commit, and even a slow disk has done
// those of 32 within the call's time-out.
constexpr std::size_t kChunk = 32;
static_assert(kChunk <= static_cast<std::size_t>(sd::protocol::kMaxElements));

using Iterator = std::vector<PolicyEntry>::const_iterator;

int sendChunk(Service& service, Iterator begin, Iterator end) {
    sd::PolicyList list;
    for (auto entry = begin; entry != end; ++entry) list[entry->uri] = {{entry->value, entry->priority}};
    // Its boolean is about the last policy alone: what became of each is read back.
    return service.call("SetPolicyList(", [&] { return sd::DMConfig::GetInstance()->SetPolicyList(list); }).exitCode;
}

int sendAll(const std::vector<PolicyEntry>& entries, Service& service) {
    for (std::size_t sent = 0; sent < entries.size(); sent += kChunk) {
        const auto begin = entries.begin() + static_cast<std::ptrdiff_t>(sent);
        const auto count = static_cast<std::ptrdiff_t>(std::min(kChunk, entries.size() - sent));
        if (const int code = sendChunk(service, begin, begin + count)) {
            notePartlySent(sent, entries.size());
            return code;
        }
    }
    return kDone;
}

std::vector<std::string> urisOf(const std::vector<PolicyEntry>& entries) {
    std::vector<std::string> uris;
    uris.reserve(entries.size());
    for (const PolicyEntry& entry : entries) uris.push_back(entry.uri);
    return uris;
}

// Returns the exit code.
int noteProperties(const std::vector<PolicyEntry>& entries, Service& service) {
    std::map<std::string, Effective> now;
    if (const int code = readEffective(urisOf(entries), service, now)) return code;
    for (const auto& [uri, effective] : now)
        if (isOnlyProperty(uri, effective)) noteProperty(uri);
    return kDone;
}

enum class Outcome { InForce, Outweighed, NotStored, Untold, Deleted, NotDeleted, Governed };

struct Result {
    std::string uri;
    Outcome outcome;
    std::string place{};  // of the policy of the machine that governs it
};

bool holds(const std::vector<Result>& results, Outcome outcome) {
    return std::any_of(results.begin(), results.end(), [&](const Result& one) { return one.outcome == outcome; });
}

// At the local priority it may be a local value that reads back, or none at all: only what is stored tells.
bool readsAsLocal(const PolicyEntry& entry, const Effective& now) {
    return entry.priority <= sd::kLocalPriority && now.priority == sd::kLocalPriority;
}

// What is stored, by the URI without letter case.
struct Stored {
    std::map<std::string, std::optional<apps::Policy>> policies;
    bool complete = true;
};

// Returns the exit code.
int readStored(const Request& request, Service& service, Stored& stored) {
    const StoredPolicies read = storedPolicies(request, service);
    for (const StoredPolicy& one : read.all) stored.policies.emplace(folded(one.uri), one.policy);
    stored.complete = !read.cut;
    return read.exitCode;
}

// What became of a policy that reads as local.
Outcome outcomeOf(const PolicyEntry& entry, const Effective& now, const Stored& stored) {
    const auto row = stored.policies.find(folded(entry.uri));
    if (row == stored.policies.end()) return stored.complete ? Outcome::NotStored : Outcome::Untold;
    const auto& held = row->second;
    if (!held || held->value != entry.value || held->priority != entry.priority) return Outcome::NotStored;
    return now.value == entry.value && now.priority == entry.priority ? Outcome::InForce : Outcome::Outweighed;
}

Outcome outcomeOf(const PolicyEntry& entry, const Effective& now) {
    return now.value == entry.value && now.priority == entry.priority ? Outcome::InForce : Outcome::NotStored;
}

// Adds what became of the entries, which were sent. Returns the exit code.
int readBack(const Request& request, const std::vector<PolicyEntry>& entries, Service& service,
             std::vector<Result>& results) {
    std::map<std::string, Effective> now;
    if (const int code = readEffective(urisOf(entries), service, now)) return code;
    const auto asLocal = [&](const PolicyEntry& entry) { return readsAsLocal(entry, now.at(entry.uri)); };
    Stored stored;
    if (std::any_of(entries.begin(), entries.end(), asLocal))
        if (const int code = readStored(request, service, stored)) return code;
    for (const PolicyEntry& entry : entries) {
        const Effective& read = now.at(entry.uri);
        results.push_back({entry.uri, asLocal(entry) ? outcomeOf(entry, read, stored) : outcomeOf(entry, read)});
    }
    return kDone;
}

// The stored policies that the file doesn't name: their URIs, as they are spelled there. Returns the exit code.
int findSurplus(const Request& request, const std::vector<PolicyEntry>& entries, Service& service,
                std::vector<std::string>& surplus) {
    const StoredPolicies stored = storedPolicies(request, service);
    if (stored.exitCode) return stored.exitCode;
    if (stored.cut) return surplusUnknown(request);
    std::set<std::string> named;
    for (const PolicyEntry& entry : entries) named.insert(folded(entry.uri));
    for (const StoredPolicy& one : stored.all)
        if (named.count(folded(one.uri)) == 0) surplus.push_back(one.uri);
    return kDone;
}

// One by one, since no call deletes several and spares others. A URI with a zero byte, behind which it would name
// another policy, is left out. Returns the exit code.
int deletePolicies(const std::vector<std::string>& uris, Service& service) {
    for (std::size_t i = 0; i < uris.size(); ++i) {
        const std::string& uri = uris[i];
        if (uri.find('\0') != std::string::npos) continue;
        const auto answer = service.call("DeletePolicyWithUri key", uri,
                                         [&] { return sd::DMConfig::GetInstance()->DeletePolicyWithUri(uri); });
        if (!answer.exitCode) continue;
        notePartlyDeleted(i, uris.size());
        return answer.exitCode;
    }
    return kDone;
}

// Where a policy of the file is not stored, all others stay: one of them may be what it was to take the place of.
int deleteSurplus(const Request& request, const std::vector<std::string>& surplus, Service& service,
                  std::vector<Result>& results) {
    if (surplus.empty()) return kDone;
    const bool stay = holds(results, Outcome::NotStored) || holds(results, Outcome::Untold);
    if (!stay)
        if (const int code = deletePolicies(surplus, service)) return code;
    Stored stored;
    if (const int code = readStored(request, service, stored)) return code;
    for (const std::string& uri : surplus) {
        const bool there = stored.policies.count(folded(uri)) != 0;
        results.push_back({uri, there ? Outcome::NotDeleted : stored.complete ? Outcome::Deleted : Outcome::Untold});
    }
    return kDone;
}

int report(const Request& request, const std::vector<Result>& results) {
    static constexpr const char* kText[] = {"in force",
                                            "outweighed by what is set locally",
                                            "not stored",
                                            "it can't be told whether it is stored",
                                            "deleted",
                                            "not deleted",
                                            "left as the machine's policy has it, in "};
    static constexpr const char* kName[] = {"in_force", "outweighed",  "not_stored", "untold",
                                            "deleted",  "not_deleted", "governed"};
    std::string text;
    Object object{{"policies", Object::array()}};
    for (const auto& [uri, outcome, place] : results) {
        const auto which = static_cast<std::size_t>(outcome);
        text += shownInLine(uri) + ": " + kText[which] + shownInLine(place) + "\n";
        Object one;
        addBytes(one, "uri", uri);
        one["outcome"] = kName[which];
        if (!place.empty()) addBytes(one, "place", place);
        object["policies"].push_back(std::move(one));
    }
    const int printed = print(request, text, object);
    if (holds(results, Outcome::NotStored)) return policiesRefused(request);
    if (holds(results, Outcome::NotDeleted)) return notPruned(request);
    if (holds(results, Outcome::Untold)) return policiesUntold(request);
    const auto governed = std::count_if(results.begin(), results.end(),
                                        [](const Result& one) { return one.outcome == Outcome::Governed; });
    return governed > 0 ? policiesGoverned(request, static_cast<std::size_t>(governed)) : printed;
}

// Takes out what the machine's policies govern, and nobody can set or delete, and adds it to the results.
template <class Element, class UriOf>
void takeOutGoverned(std::vector<Element>& elements, UriOf uriOf, const MachineTable& machine,
                     std::vector<Result>& results) {
    const auto isGoverned = [&](const Element& element) {
        const auto governing = machine.find(uriOf(element));
        if (governing) results.push_back({uriOf(element), Outcome::Governed, governing->place()});
        return governing.has_value();
    };
    elements.erase(std::remove_if(elements.begin(), elements.end(), isGoverned), elements.end());
}

// First what is set, so that a URI whose spelling alone has changed is never without a policy.
int apply(const Request& request, std::vector<PolicyEntry> entries, std::vector<std::string> surplus,
          Service& service) {
    const MachineTable machine = machineTable(service);
    std::vector<Result> results;
    takeOutGoverned(
        entries, [](const PolicyEntry& entry) { return entry.uri; }, machine, results);
    takeOutGoverned(
        surplus, [](const std::string& uri) { return uri; }, machine, results);
    if (const int code = sendAll(entries, service)) return code;
    if (const int code = readBack(request, entries, service, results)) return code;
    if (const int code = deleteSurplus(request, surplus, service, results)) return code;
    return report(request, results);
}

int preview(const Request& request, const std::vector<PolicyEntry>& entries, const std::vector<std::string>& surplus,
            Service& service) {
    std::vector<PlannedPolicy> plan;
    plan.reserve(entries.size() + surplus.size());
    for (const PolicyEntry& entry : entries) plan.push_back({entry.uri, apps::Policy{entry.value, entry.priority}});
    for (const std::string& uri : surplus) plan.push_back({uri, std::nullopt});
    return previewPolicies(request, plan, service);
}

std::string pruneQuestion(std::size_t count) {
    return "Delete " + std::to_string(count) + (count == 1 ? " policy" : " policies") + " that the file doesn't name?";
}

}  // namespace

int applyPolicies(const Request& request, Service& service) {
    if (request.fileGiven != request.policyDirs.empty())
        return misused(request.command, request.fileGiven ? "FILE and --policy-dir exclude each other"
                                                          : "FILE is missing, or --policy-dir");
    if (!request.policyDirs.empty()) return tryPolicyFolders(request, service);
    if (request.prune && !request.dryRun && !canConfirm(request))
        return notAskable(request, "the policies that the file doesn't name");
    std::string text;
    if (const std::string problem = readWhole(request.file, kMaxFileBytes, text); !problem.empty())
        return policyFileUnread(request, problem);
    sd::PolicyFile file = sd::parsePolicyFile(text);
    if (!file.problem.empty()) return unfitPolicyFile(request, file.problem);
    if (const int code = weighPolicies(request, file.entries)) return code;
    if (const int code = service.require()) return code;
    std::vector<std::string> surplus;
    if (request.prune)
        if (const int code = findSurplus(request, file.entries, service, surplus)) return code;
    if (const int code = noteProperties(file.entries, service)) return code;
    if (request.dryRun) return preview(request, file.entries, surplus, service);
    if (!surplus.empty() && !confirmed(request, pruneQuestion(surplus.size()))) return notConfirmed(request);
    return apply(request, file.entries, surplus, service);
}

}  // namespace cli
