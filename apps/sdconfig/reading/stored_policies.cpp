#include "apps/sdconfig/reading/stored_policies.h"

#include <algorithm>

#include "apps/sdconfig/reading/data_access.h"
#include "apps/sdconfig/reading/machine_table.h"
#include "apps/sdconfig/service/service.h"
#include "apps/sdconfig/terminal/messages.h"
#include "libsdconfig/dmconfig.h"
#include "libsdconfig/sdconfig_text.h"
#include "src/sdconfig_protocol.h"

namespace cli {

namespace {

// Returns what hindered the reading, or "". A row without a value is no policy to the service either.
std::string readAll(const DataAccess& access, StoredPolicies& result) {
    if (!access.reader) return "the folder is not known";
    std::vector<apps::Row> rows;
    std::string problem = access.reader->policyRows(rows);
    if (problem.empty() && !rows.empty()) problem = apps::DataReader::ringProblem();
    if (!problem.empty()) return problem;
    for (const apps::Row& row : rows)
        if (!row.value.empty()) result.all.push_back({row.key, apps::DataReader::policy(row)});
    std::sort(result.all.begin(), result.all.end(), [](const auto& a, const auto& b) { return a.uri < b.uri; });
    result.reader = access.reader;
    return "";
}

// What is stored beneath a policy of the machine the list doesn't tell.
std::vector<StoredPolicy> fromList(const sd::PolicyList& list, const MachineTable& machine) {
    std::vector<StoredPolicy> all;
    for (const auto& [uri, policy] : list) {
        if (machine.find(uri)) continue;
        const auto& [value, priority] = *policy.begin();
        all.push_back({uri, apps::Policy{value == sd::kNullValue ? "" : sd::textAsSet(value), priority}});
    }
    return all;
}

StoredPolicies withoutService(const Request& request, const Service& service) {
    StoredPolicies result;
    const DataAccess access = accessData(request, service);
    if ((result.exitCode = access.exitCode) != kDone) return result;
    if (const std::string problem = readAll(access, result); !problem.empty()) {
        result.exitCode = nothingToReadFrom(request, problemOfData(access, problem));
        return result;
    }
    noteWithoutService(access.reader->folder());
    noteMissingDatabases(*access.reader);
    return result;
}

}  // namespace

StoredPolicies storedPolicies(const Request& request, Service& service) {
    if (!service.listening()) return withoutService(request, service);
    StoredPolicies result;
    if ((result.exitCode = service.require()) != kDone) return result;
    const DataAccess access = accessData(request, service);
    if ((result.exitCode = access.exitCode) != kDone) return result;
    if (readAll(access, result).empty())
        return result;  // a policy that can't be read makes the service's list unusable
    sd::PolicyList list;
    const auto answer = service.call("GetAllKeys(", [&] { return sd::DMConfig::GetInstance()->GetAllKeys(&list); });
    if ((result.exitCode = answer.exitCode) != kDone) return result;
    if (list.empty()) result.exitCode = service.requireCount(sd::protocol::kListPolicies);
    if (result.exitCode != kDone) return result;

    result.all = fromList(list, machineTable(service));
    result.cut = list.size() >= sd::protocol::kMaxElements;
    if (result.cut) noteListCut();
    return result;
}

}  // namespace cli
