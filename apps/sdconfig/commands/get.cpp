// get: plain properties.
#include <algorithm>
#include <functional>
#include <map>
#include <set>

#include "apps/sdconfig/commands/commands.h"
#include "apps/sdconfig/properties/property_files.h"
#include "apps/sdconfig/request/key_pattern.h"
#include "apps/sdconfig/service/service.h"
#include "apps/sdconfig/terminal/messages.h"
#include "apps/sdconfig/terminal/output.h"
#include "libsdconfig/sdconfig.h"

namespace cli {

namespace {

// Reads a property; returns the exit code.
using Reading = std::function<int(const std::string& key, std::string& value)>;

bool wantsList(const Request& request) {
    return request.keys.empty() || std::any_of(request.keys.begin(), request.keys.end(), isPattern);
}

// The listed keys that a pattern stands for and that have a value.
int readListed(const std::string& pattern, const std::set<std::string>& listed, const Reading& read,
               std::vector<Lookup>& found) {
    for (const std::string& key : listed) {
        std::string value;
        if (!fits(key, pattern)) continue;
        if (const int code = read(key, value)) return code;
        if (!value.empty()) found.push_back({key, value});
    }
    return kDone;
}

int printProperties(const Request& request, const std::set<std::string>& listed, const Reading& read,
                    int (*whenUnset)(const Request&)) {
    const bool alone = request.keys.size() == 1 && !isPattern(request.keys.front());
    std::vector<Lookup> found;
    int missing = kDone;
    for (const std::string& key : request.keys.empty() ? std::vector<std::string>{"*"} : request.keys) {
        const std::size_t before = found.size();
        std::string value;
        if (const int code = isPattern(key) ? readListed(key, listed, read, found) : read(key, value)) return code;
        Request one = request;
        if (!request.keys.empty()) one.key = key;
        if (!isPattern(key))
            found.push_back({key, value});
        else if (found.size() == before)
            missing = nothingListed(one);
    }
    const int printed = printValues(request, alone, found, whenUnset);
    return printed ? printed : missing;
}

int getLocally(const Request& request) {
    if (!request.productDir.empty()) sd::SDConfig::setVelmarDataPath(request.productDir);
    const Reading read = [](const std::string& key, std::string& value) {
        value = sd::SDConfig::GetInstance()->GetProperty(key, true);
        return static_cast<int>(kDone);
    };
    const auto listed = wantsList(request) ? keysInFiles(request.productDir) : std::set<std::string>();
    return printProperties(request, listed, read, unsetHere);
}

// The service of this version lists no properties; it tells the value of each whose key the files here have.
int listKeysOfService(Service& service, std::set<std::string>& listed) {
    listed = keysInFiles(service.productFolder());
    std::map<std::string, std::string> told;
    const auto answer =
        service.call("GetAllProperties(", [&] { return sd::SDConfig::GetInstance()->GetAllProperties(&told); });
    for (const auto& [key, value] : told) listed.insert(key);
    if (!answer.exitCode) noteListedProperties();
    return answer.exitCode;
}

}  // namespace

int getProperty(const Request& request, Service& service) {
    if (request.local) return getLocally(request);
    if (const int code = service.require()) return code;
    std::set<std::string> listed;
    if (wantsList(request))
        if (const int code = listKeysOfService(service, listed)) return code;
    const Reading read = [&service](const std::string& key, std::string& value) {
        auto answer =
            service.call("GetProperty the key", key, [&] { return sd::SDConfig::GetInstance()->GetProperty(key); });
        value = std::move(answer.result);
        return answer.exitCode;
    };
    return printProperties(request, listed, read, unset);
}

}  // namespace cli
