// list: the keys of the secure values and of the policies, read from the data folder itself.
#include <algorithm>

#include "apps/sdconfig/data_commands/data_commands.h"
#include "apps/sdconfig/described/described_keys.h"
#include "apps/sdconfig/properties/property_files.h"
#include "apps/sdconfig/reading/data_access.h"
#include "apps/sdconfig/reading/machine_table.h"
#include "apps/sdconfig/request/key_pattern.h"
#include "apps/sdconfig/request/letter_case.h"
#include "apps/sdconfig/service/service.h"
#include "apps/sdconfig/terminal/messages.h"
#include "apps/sdconfig/terminal/output.h"
#include "libsdconfig/sdconfig.h"

namespace cli {

namespace {

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

// Of the rows of one database: what they are called, and what is shown of one.
struct Kind {
    const char* word;
    const char* keyName;
    const char* all;         // the name of their array
    const char* unreadable;  // what stands behind the key in the line of one that can't be opened
    bool (*show)(const apps::Row& row, std::string& line, Object& object);  // false where it can't be opened
};

bool showSecure(const apps::Row& row, std::string& line, Object& object) {
    const auto value = apps::DataReader::secureValue(row);
    if (!value) return false;
    line += "\t" + shownInLine(*value);
    addBytes(object, "value", *value);
    return true;
}

bool showPolicy(const apps::Row& row, std::string& line, Object& object) {
    const auto policy = apps::DataReader::policy(row);
    if (!policy) return false;
    line += "\t" + std::to_string(policy->priority) + "\t" + shownInLine(policy->value);
    addBytes(object, "value", policy->value);
    object["priority"] = policy->priority;
    return true;
}

// What is described and has no value, with its default.
void addDescribed(const sd::Descriptions::Found& found, Listing& listing) {
    const sd::KeyDescription& description = found.description;
    Object object;
    addBytes(object, "key", description.key);
    object["default"] = description.defaultValue ? Object(*description.defaultValue) : Object();
    listing.text += "described\t" + shownInLine(description.key) + "\t" +
                    (description.defaultValue ? shownInLine(*description.defaultValue) : "-") + "\n";
    listing.object["described"].push_back(std::move(object));
}

constexpr Kind kSecure{"secure", "key", "secure", "\t(can't be opened)", showSecure};
constexpr Kind kPolicy{"policy", "uri", "policies", "\t-\t(can't be opened)", showPolicy};

void add(const apps::Row& row, const Kind& kind, bool show, Listing& listing) {
    Object object;
    addBytes(object, kind.keyName, row.key);
    std::string line = std::string(kind.word) + "\t" + shownInLine(row.key);
    if (show) {
        object["readable"] = true;
        const bool readable = kind.show(row, line, object);
        object["readable"] = readable;
        if (!readable) line += kind.unreadable;
        listing.complete = listing.complete && readable;
    }
    listing.text += line + "\n";
    listing.object[kind.all].push_back(std::move(object));
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

// Tells which keys have a value, or may have one that can't be read.
class SetKeys {
public:
    SetKeys(const std::vector<apps::Row>& secure, const std::vector<apps::Row>& policies, Service& service)
        : mService(service), mMachine(machineTable(service)), mListens(service.listening()) {
        for (const auto* rows : {&secure, &policies})
            for (const apps::Row& row : *rows) mSecure.insert(folded(row.key));
        if (!mListens) mInFiles = keysInFiles("");
    }

    // Returns the exit code.
    int ask(const sd::KeyDescription& description, bool& isSet) const {
        const std::string& key = description.key;
        if (description.store == sd::KeyStore::Secure) {
            isSet = mSecure.count(folded(key)) != 0 || mMachine.find(key);
            return kDone;
        }
        if (!mListens) {
            isSet = mInFiles.count(key) != 0;
            return kDone;
        }
        const auto answer =
            mService.call("GetProperty the key", key, [&] { return sd::SDConfig::GetInstance()->GetProperty(key); });
        isSet = !answer.result.empty();
        return answer.exitCode;
    }

private:
    Service& mService;
    const MachineTable mMachine;
    const bool mListens;
    std::set<std::string> mSecure;
    std::set<std::string> mInFiles;
};

// Returns the exit code.
int listDescribed(const Request& request, const SetKeys& setKeys, Listing& listing) {
    sd::Descriptions descriptions = describedKeys(request);
    listing.object["described"] = Object::array();
    for (const auto& found : descriptions.all()) {
        bool isSet = false;
        if (found.description.isGlob() || !isWanted(found.description.key, request)) continue;
        if (const int code = setKeys.ask(found.description, isSet)) return code;
        if (!isSet) addDescribed(found, listing);
    }
    noteLeftOut(descriptions);
    return kDone;
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
        if (isWanted(row.key, request)) add(row, kSecure, request.show, listing);
    for (const apps::Row& row : policies)
        if (isWanted(row.key, request)) add(row, kPolicy, request.show, listing);
    if (request.described)
        if (const int code = listDescribed(request, SetKeys(secure, policies, service), listing)) return code;
    const int printed = print(request, listing.text, listing.object);
    return listing.complete
               ? printed
               : valuesUnreadable(request, {apps::DataReader::ringProblem(), apps::DataReader::ringRemedy()});
}

}  // namespace cli
