// policy export: the stored policies as a file, and the machine's where they are wanted.
#include "apps/sdconfig/data_commands/data_commands.h"
#include "apps/sdconfig/files/whole_file.h"
#include "apps/sdconfig/reading/machine_table.h"
#include "apps/sdconfig/reading/stored_policies.h"
#include "apps/sdconfig/terminal/messages.h"
#include "apps/sdconfig/terminal/output.h"
#include "policies/policy_file.h"

namespace cli {

namespace {

using sd::PolicyEntry;

// Into the file, or to standard output, where it stands for the result.
int putFile(const Request& request, const std::vector<PolicyEntry>& entries, bool complete) {
    const std::string text = sd::composePolicyFile(entries);
    if (request.file == "-") return printText(text);
    if (const std::string reason = writeWhole(request.file, text); !reason.empty())
        return fileNotWritten(request, reason);
    Object object;
    addBytes(object, "file", request.file);
    object["policies"] = entries.size();
    object["complete"] = complete;
    return print(request, "", object);
}

}  // namespace

int exportPolicies(const Request& request, Service& service) {
    const StoredPolicies stored = storedPolicies(request, service);
    if (stored.exitCode) return stored.exitCode;
    std::vector<PolicyEntry> entries;
    std::string problem = stored.cut ? "the service lists no more of the policies" : "";
    std::string next = "name the service's data folder with --data-dir";
    const MachineTable machine = request.machine ? machineTable(service) : MachineTable();
    for (const apps::MachinePolicy& one : machine.all())
        entries.push_back({one.uri, one.policy.value, one.policy.priority});
    for (const StoredPolicy& one : stored.all) {
        if (machine.find(one.uri)) continue;
        const PolicyEntry entry =
            one.policy ? PolicyEntry{one.uri, one.policy->value, one.policy->priority} : PolicyEntry{one.uri, "", 0};
        const std::string unfit = one.policy ? sd::unfitForFile(entry) : "it can't be read";
        if (unfit.empty()) {
            entries.push_back(entry);
        } else if (problem.empty()) {
            problem = "the policy of " + quoted(one.uri) + " is left out: " + unfit;
            next = "set it anew, or delete it with: " + typed("policy delete ") + asArgument(one.uri);
        }
    }
    if (const int code = putFile(request, entries, problem.empty())) return code;
    return problem.empty() ? kDone : leftOut(request, problem, next);
}

}  // namespace cli
