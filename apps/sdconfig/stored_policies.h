// All policies as they are stored, whether they are in force or not.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "apps/common/data_reader.h"
#include "apps/sdconfig/request.h"

namespace cli {

class Service;

struct StoredPolicy {
    std::string uri;
    std::optional<apps::Policy> policy;  // nothing: there is one, and it can't be read
};

struct StoredPolicies {
    std::vector<StoredPolicy> all;           // in the order of their URIs
    bool cut = false;                        // the service lists no more than these, and the rest can't be read
    std::optional<apps::DataReader> reader;  // of the folder that they were read from; nothing: the service told them
    int exitCode = 0;                        // where it isn't kDone, there is nothing, and that was told
};

// Asks the service, which lists a bounded number of them; where its data folder can be read, all are taken from there,
// without a service, too.
StoredPolicies storedPolicies(const Request& request, Service& service);

}  // namespace cli
