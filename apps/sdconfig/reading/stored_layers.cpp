#include "apps/sdconfig/reading/stored_layers.h"

#include <utility>
#include <vector>

#include "apps/sdconfig/reading/data_access.h"
#include "apps/sdconfig/request/letter_case.h"

namespace cli {

namespace {

std::map<std::string, apps::Row> byKey(std::vector<apps::Row> rows) {
    std::map<std::string, apps::Row> all;
    for (apps::Row& row : rows) {
        std::string key = folded(row.key);
        all.emplace(std::move(key), std::move(row));
    }
    return all;
}

}  // namespace

std::string StoredLayers::read(const apps::DataReader& reader, const std::optional<std::string>& key) {
    std::vector<apps::Row> secure;
    std::vector<apps::Row> policies;
    if (std::string problem = reader.secureRows(secure, key); !problem.empty()) return problem;
    if (std::string problem = reader.policyRows(policies, key); !problem.empty()) return problem;
    mSecure = byKey(std::move(secure));
    mPolicies = byKey(std::move(policies));
    return "";
}

Layers StoredLayers::of(const std::string& key) const {
    Layers layers;
    layers.machine = mMachine.find(key);
    if (const auto found = mPolicies.find(folded(key)); found != mPolicies.end() && !found->second.value.empty()) {
        apps::RowFault fault;
        layers.policy = apps::DataReader::policy(found->second, &fault);
        layers.policyUnreadable = !layers.policy;
        layers.policyFault = fault.what;
    }
    if (const auto found = mSecure.find(folded(key)); found != mSecure.end()) {
        apps::RowFault fault;
        const auto value = apps::DataReader::secureValue(found->second, &fault);
        layers.rowFault = fault.what;
        layers.row = !value ? Layers::Row::Unreadable : value->empty() ? Layers::Row::Empty : Layers::Row::Value;
        layers.rowHidesPolicy = found->second.key == key;
        layers.local = value.value_or("");
    }
    return layers;
}

std::map<std::string, std::string> StoredLayers::keys() const {
    std::map<std::string, std::string> all;
    for (const auto* rows : {&mSecure, &mPolicies})
        for (const auto& [name, row] : *rows) all.emplace(name, row.key);
    return all;
}

Layers storedLayers(const Request& request, const Service& service) {
    const DataAccess access = findData(request, service);
    StoredLayers stored;
    const bool known = access.reader && stored.read(*access.reader, request.key).empty();
    if (!known) return Layers();
    stored.governBy(machineTable(service));
    return stored.of(request.key);
}

}  // namespace cli
