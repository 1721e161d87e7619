// All policies as they are stored, whether they are in force or not.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "apps/data/data_reader.h"
#include "apps/sdconfig/request/request.h"

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

// All of them, from the service's data folder where that can be read, without a service, too; else what the service
// lists, which is a bounded number.
StoredPolicies storedPolicies(const Request& request, Service& service);

}  // namespace cli
