// What changes of policies would bring about: the effective values before and after, and why.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "apps/sdconfig/policy/effective.h"
#include "apps/sdconfig/reading/stored_layers.h"
#include "apps/sdconfig/request/request.h"

namespace cli {

class Service;

// What is to become of a policy.
struct PlannedPolicy {
    std::string uri;
    std::optional<apps::Policy> policy;  // nothing: it is deleted
};

// Asks the service for the effective values of the URIs. Returns the exit code.
int readEffective(const std::vector<std::string>& uris, Service& service, std::map<std::string, Effective>& result);

// Prints the difference and changes nothing. Returns the exit code.
int previewPolicies(const Request& request, const std::vector<PlannedPolicy>& plan, Service& service);

// The layers of a URI as they are, and as they would be.
struct MachineChange {
    std::string uri;
    Layers before;
    Layers after;
};

// Of all URIs that policies of the machine govern or would govern, in their order without letter case. layers: as they
// are now.
std::vector<MachineChange> changesUnder(const StoredLayers& layers, const MachineTable& after);

// Prints those.
int previewMachine(const Request& request, const StoredLayers& layers, const MachineTable& after);

}  // namespace cli
