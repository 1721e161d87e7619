#include "apps/sdconfig/stored_policies.h"

#include <algorithm>

#include "apps/sdconfig/data_access.h"
#include "apps/sdconfig/messages.h"
#include "apps/sdconfig/service.h"
#include "libsdconfig/dmconfig.h"
#include "src/sdconfig_protocol.h"

namespace cli {

namespace {

// False when they can't be read, so that the service's list has to do.
bool readAll(const apps::DataReader& reader, std::vector<StoredPolicy>& all) {
    std::vector<apps::Row> rows;
    if (!reader.policyRows(rows).empty()) return false;
    if (!rows.empty() && !apps::DataReader::ringProblem().empty()) return false;
    for (const apps::Row& row : rows) all.push_back({row.key, apps::DataReader::policy(row)});
    std::sort(all.begin(), all.end(), [](const auto& one, const auto& other) { return one.uri < other.uri; });
    return true;
}

std::vector<StoredPolicy> fromList(const sd::PolicyList& list) {
    std::vector<StoredPolicy> all;
    for (const auto& [uri, policy] : list) {
        const auto& [value, priority] = *policy.begin();
        all.push_back({uri, apps::Policy{value == sd::kNullValue ? "" : value, priority}});
    }
    return all;
}

}  // namespace

StoredPolicies storedPolicies(const Request& request, Service& service) {
    StoredPolicies result;
    if ((result.exitCode = service.require()) != kDone) return result;
    const DataAccess access = accessData(request, service);
    if ((result.exitCode = access.exitCode) != kDone) return result;
    sd::PolicyList list;
    const auto answer = service.call("GetAllKeys(", [&] { return sd::DMConfig::GetInstance()->GetAllKeys(&list); });
    if ((result.exitCode = answer.exitCode) != kDone) return result;

    const bool cut = list.size() >= sd::protocol::kMaxElements;
    if (access.reader && readAll(*access.reader, result.all)) {
        if (cut) noteListCut(access.reader->folder());
        return result;
    }
    result.all = fromList(list);
    result.cut = cut;
    if (cut) noteListCut("");
    return result;
}

}  // namespace cli
