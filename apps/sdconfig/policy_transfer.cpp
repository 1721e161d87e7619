// policy export and apply: policies as a file.
#include <algorithm>
#include <cstddef>
#include <map>
#include <optional>
#include <set>

#include "apps/sdconfig/commands.h"
#include "apps/sdconfig/letter_case.h"
#include "apps/sdconfig/messages.h"
#include "apps/sdconfig/output.h"
#include "apps/sdconfig/policy_file.h"
#include "apps/sdconfig/policy_preview.h"
#include "apps/sdconfig/policy_value.h"
#include "apps/sdconfig/service.h"
#include "apps/sdconfig/stored_policies.h"
#include "apps/sdconfig/whole_file.h"
#include "libsdconfig/dmconfig.h"
#include "src/sdconfig_protocol.h"

namespace cli {

namespace {

// A list of ten thousand policies takes about one; nobody needs more at once.
constexpr std::size_t kMaxFileBytes = 16u << 20;

// One call's share. The wire takes 122; a policy costs the service two durable commits, and even a slow disk has done
// those of 32 within the call's time-out.
constexpr std::size_t kChunk = 32;
static_assert(kChunk <= static_cast<std::size_t>(sd::protocol::kMaxElements));

using Iterator = std::vector<PolicyEntry>::const_iterator;

int sendChunk(Service& service, Iterator begin, Iterator end) {
    sd::PolicyList list;
    for (auto entry = begin; entry != end; ++entry) list[entry->uri] = {{policyBytes(entry->value), entry->priority}};
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

enum class Outcome { InForce, Outweighed, NotStored, Untold };

// At the local priority it may be a local value that reads back, or none at all: only what is stored tells.
bool readsAsLocal(const PolicyEntry& entry, const Effective& now) {
    return entry.priority <= sd::kLocalPriority && now.priority == sd::kLocalPriority;
}

// What is stored, by the URI without letter case.
struct Stored {
    std::map<std::string, std::optional<apps::Policy>> policies;
    bool complete = true;
};

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

int report(const Request& request, const std::vector<PolicyEntry>& entries, const std::map<std::string, Effective>& now,
           const Stored& stored) {
    static constexpr const char* kText[] = {"in force", "outweighed by what is set locally", "not stored",
                                            "it can't be told whether it is stored"};
    static constexpr const char* kName[] = {"in_force", "outweighed", "not_stored", "untold"};
    std::string text;
    Object object{{"policies", Object::array()}};
    std::set<Outcome> outcomes;
    for (const PolicyEntry& entry : entries) {
        const Effective& read = now.at(entry.uri);
        const Outcome outcome = readsAsLocal(entry, read) ? outcomeOf(entry, read, stored) : outcomeOf(entry, read);
        outcomes.insert(outcome);
        const auto which = static_cast<std::size_t>(outcome);
        text += escaped(entry.uri) + ": " + kText[which] + "\n";
        object["policies"].push_back({{"uri", entry.uri}, {"outcome", kName[which]}});
    }
    const int printed = print(request, text, object);
    if (outcomes.count(Outcome::NotStored) != 0) return policiesRefused(request);
    return outcomes.count(Outcome::Untold) != 0 ? policiesUntold(request) : printed;
}

int apply(const Request& request, const std::vector<PolicyEntry>& entries, Service& service) {
    if (const int code = sendAll(entries, service)) return code;
    std::map<std::string, Effective> now;
    if (const int code = readEffective(entries, service, now)) return code;
    const auto asLocal = [&](const PolicyEntry& entry) { return readsAsLocal(entry, now.at(entry.uri)); };
    StoredPolicies read;
    if (std::any_of(entries.begin(), entries.end(), asLocal)) read = storedPolicies(request, service);
    if (read.exitCode) return read.exitCode;
    Stored stored{{}, !read.cut};
    for (const StoredPolicy& one : read.all) stored.policies.emplace(folded(one.uri), one.policy);
    return report(request, entries, now, stored);
}

}  // namespace

int exportPolicies(const Request& request, Service& service) {
    const StoredPolicies stored = storedPolicies(request, service);
    if (stored.exitCode) return stored.exitCode;
    std::vector<PolicyEntry> entries;
    std::string problem = stored.cut ? "the service lists no more of the policies" : "";
    std::string next = "name the service's data folder with --data-dir";
    for (const StoredPolicy& one : stored.all) {
        const PolicyEntry entry =
            one.policy ? PolicyEntry{one.uri, one.policy->value, one.policy->priority} : PolicyEntry{one.uri, "", 0};
        const std::string unfit = one.policy ? unfitForFile(entry) : "it can't be read";
        if (unfit.empty()) {
            entries.push_back(entry);
        } else if (problem.empty()) {
            problem = "the policy of " + quoted(one.uri) + " is left out: " + unfit;
            next = "set or delete that one, and repeat it";
        }
    }
    const std::string text = composePolicyFile(entries);
    if (request.file == "-") {
        if (const int code = printText(text)) return code;
    } else if (const std::string reason = writeWhole(request.file, text); !reason.empty()) {
        return fileNotWritten(request, reason);
    }
    return problem.empty() ? kDone : leftOut(request, problem, next);
}

int applyPolicies(const Request& request, Service& service) {
    std::string text;
    if (const std::string problem = readWhole(request.file, kMaxFileBytes, text); !problem.empty())
        return unfitPolicyFile(request, problem);
    const PolicyFile file = parsePolicyFile(text);
    if (!file.problem.empty()) return unfitPolicyFile(request, file.problem);
    if (const int code = service.require()) return code;
    return request.dryRun ? previewPolicies(request, file.entries, service) : apply(request, file.entries, service);
}

}  // namespace cli
