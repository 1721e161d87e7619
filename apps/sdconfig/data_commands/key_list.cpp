// key list: the keys of the ring, and what is sealed with each, read from the data folder itself.
#include <algorithm>
#include <map>

#include "apps/common/time_text.h"
#include "apps/sdconfig/data_commands/data_commands.h"
#include "apps/sdconfig/reading/data_access.h"
#include "apps/sdconfig/service/service.h"
#include "apps/sdconfig/terminal/messages.h"
#include "apps/sdconfig/terminal/output.h"
#include "apps/sdconfig/terminal/table.h"
#include "platform/sdsecurity/sdsecurity.h"

namespace cli {

namespace {

using sd::SDSecurity;

struct Holdings {
    std::size_t values = 0;
    std::size_t policies = 0;
};
using HoldingsByKey = std::map<std::string, Holdings>;

// A key of the ring, or one that rows name and the ring lacks.
struct ListedKey {
    SDSecurity::KeyInfo info;
    bool isMissing;
    Holdings holds;
};

void count(const std::vector<apps::Row>& rows, std::size_t Holdings::*kind, HoldingsByKey& holdings) {
    for (const apps::Row& row : rows)
        if (const auto seal = SDSecurity::SealOf(row.value)) ++(holdings[seal->keyId].*kind);
}

// Returns what hindered it, or "". One of the databases may not be there.
std::string readHoldings(const apps::DataReader& reader, HoldingsByKey& holdings) {
    std::vector<apps::Row> rows;
    std::string problem = reader.hasSecure() ? reader.secureRows(rows) : "";
    count(rows, &Holdings::values, holdings);
    rows.clear();
    if (problem.empty() && reader.hasPolicies()) problem = reader.policyRows(rows);
    count(rows, &Holdings::policies, holdings);
    return problem;
}

std::vector<ListedKey> listed(HoldingsByKey holdings) {
    std::vector<ListedKey> all;
    for (SDSecurity::KeyInfo& key : SDSecurity::GetInstance()->Keys()) {
        const Holdings holds = holdings[key.id];
        holdings.erase(key.id);
        all.push_back({std::move(key), false, holds});
    }
    for (const auto& [id, holds] : holdings)
        all.push_back({{id, SDSecurity::KeyState::Opening, 0, "", 0}, true, holds});
    return all;
}

const char* stateOf(const ListedKey& key) {
    if (key.isMissing) return "missing";
    switch (key.info.state) {
        case SDSecurity::KeyState::Sealing:
            return "sealing";
        case SDSecurity::KeyState::Disabled:
            return "disabled";
        default:
            return "opening";
    }
}

std::string textOf(const std::vector<ListedKey>& keys) {
    const auto known = [](const std::string& text) { return text.empty() ? "-" : text; };
    std::vector<Fields> lines;
    lines.reserve(keys.size());
    for (const ListedKey& key : keys)
        lines.push_back({key.info.id, stateOf(key), known(apps::timeText(key.info.made)), known(key.info.version),
                         std::to_string(key.holds.values), std::to_string(key.holds.policies),
                         key.isMissing ? "-" : std::to_string(key.info.seals)});
    return table({"KEY", "STATE", "MADE", "VERSION", "VALUES", "POLICIES", "SEALS"}, lines);
}

Object objectOf(const std::vector<ListedKey>& keys, bool requiresBoundForm) {
    const auto known = [](const std::string& text) { return text.empty() ? Object() : Object(text); };
    Object all = Object::array();
    for (const ListedKey& key : keys)
        all.push_back({{"key", key.info.id},
                       {"state", stateOf(key)},
                       {"made", known(apps::timeText(key.info.made))},
                       {"version", known(key.info.version)},
                       {"values", key.holds.values},
                       {"policies", key.holds.policies},
                       {"seals", key.isMissing ? Object() : Object(key.info.seals)}});
    return {{"keys", std::move(all)}, {"bound_only", requiresBoundForm}};
}

}  // namespace

int listKeyRing(const Request& request, Service& service) {
    const DataAccess access = accessData(request, service);
    if (access.exitCode) return access.exitCode;
    HoldingsByKey holdings;
    const std::string problem = access.reader ? readHoldings(*access.reader, holdings) : kFolderUntold;
    if (!problem.empty()) {
        const Problem told = problemOfData(access, problem);
        return service.listening() ? dataUnreadable(request, told) : nothingToReadFrom(request, told);
    }
    if (holdings.empty() && SDSecurity::GetInstance()->CheckKeyRing().state == SDSecurity::KeyRingState::Absent)
        return noKeyYet(request);
    if (const std::string ring = apps::DataReader::ringProblem(); !ring.empty())
        return noRing(request, {ring, apps::DataReader::ringRemedy()});
    const std::vector<ListedKey> keys = listed(std::move(holdings));
    const int printed = print(request, textOf(keys), objectOf(keys, SDSecurity::GetInstance()->RequiresBoundForm()));
    const auto missing = std::count_if(keys.begin(), keys.end(), [](const ListedKey& key) { return key.isMissing; });
    return missing == 0 ? printed : keysMissing(request, static_cast<std::size_t>(missing));
}

}  // namespace cli
