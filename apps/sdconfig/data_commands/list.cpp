// list: the keys of the secure values and of the policies, read from the data folder itself.
#include <algorithm>

#include "apps/sdconfig/data_commands/data_commands.h"
#include "apps/sdconfig/reading/data_access.h"
#include "apps/sdconfig/request/key_pattern.h"
#include "apps/sdconfig/request/letter_case.h"
#include "apps/sdconfig/service/service.h"
#include "apps/sdconfig/terminal/messages.h"
#include "apps/sdconfig/terminal/output.h"

namespace cli {

namespace {

constexpr char kUnreadable[] = "(can't be opened)";

struct Listing {
    std::string text;
    Object object{{"secure", Object::array()}, {"policies", Object::array()}};
    bool complete = true;  // whether every value that was asked for could be opened
};

void sortByKey(std::vector<apps::Row>& rows) {
    std::sort(rows.begin(), rows.end(), [](const auto& one, const auto& other) { return one.key < other.key; });
}

// These keys don't tell upper from lower case.
bool isWanted(const std::string& key, const Request& request) {
    return request.keys.empty() ||
           std::any_of(request.keys.begin(), request.keys.end(),
                       [&](const std::string& pattern) { return fits(folded(key), folded(pattern)); });
}

void addSecure(const apps::Row& row, bool show, Listing& listing) {
    Object object;
    addBytes(object, "key", row.key);
    listing.text += "secure\t" + shownInLine(row.key);
    if (show) {
        const auto value = apps::DataReader::secureValue(row);
        listing.text += "\t" + (value ? shownInLine(*value) : kUnreadable);
        object["readable"] = value.has_value();
        if (value) addBytes(object, "value", *value);
        listing.complete = listing.complete && value;
    }
    listing.text += "\n";
    listing.object["secure"].push_back(std::move(object));
}

void addPolicy(const apps::Row& row, bool show, Listing& listing) {
    Object object;
    addBytes(object, "uri", row.key);
    listing.text += "policy\t" + shownInLine(row.key);
    if (show) {
        const auto policy = apps::DataReader::policy(row);
        listing.text += policy ? "\t" + std::to_string(policy->priority) + "\t" + shownInLine(policy->value)
                               : "\t-\t" + std::string(kUnreadable);
        object["readable"] = policy.has_value();
        if (policy) {
            addBytes(object, "value", policy->value);
            object["priority"] = policy->priority;
        }
        listing.complete = listing.complete && policy;
    }
    listing.text += "\n";
    listing.object["policies"].push_back(std::move(object));
}

// Reads both databases, one of which may not be there. Returns what hindered it, or "".
std::string readRows(const apps::DataReader& reader, std::vector<apps::Row>& secure, std::vector<apps::Row>& policies) {
    const bool hasSecure = reader.hasSecure();
    const bool hasPolicies = reader.hasPolicies();
    std::string problem = hasSecure || !hasPolicies ? reader.secureRows(secure) : "";
    if (problem.empty() && hasPolicies) problem = reader.policyRows(policies);
    if (problem.empty()) noteMissingDatabases(reader);
    return problem;
}

}  // namespace

int listKeys(const Request& request, Service& service) {
    const DataAccess access = accessData(request, service);
    if (access.exitCode) return access.exitCode;
    std::vector<apps::Row> secure;
    std::vector<apps::Row> policies;
    const std::string problem = access.reader ? readRows(*access.reader, secure, policies) : kFolderUntold;
    if (!problem.empty()) {
        const Problem told = problemOfData(access, problem);
        return service.listening() ? dataUnreadable(request, told) : nothingToReadFrom(request, told);
    }

    sortByKey(secure);
    sortByKey(policies);
    Listing listing;
    for (const apps::Row& row : secure)
        if (isWanted(row.key, request)) addSecure(row, request.show, listing);
    for (const apps::Row& row : policies)
        if (isWanted(row.key, request)) addPolicy(row, request.show, listing);
    const int printed = print(request, listing.text, listing.object);
    return listing.complete ? printed : valuesUnreadable(request, apps::DataReader::ringProblem());
}

}  // namespace cli
