// What a list of policies would change: the effective values before and after, and why.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "apps/sdconfig/effective.h"
#include "apps/sdconfig/policy_file.h"
#include "apps/sdconfig/request.h"

namespace cli {

class Service;

// Asks the service for the effective values of the entries' URIs. Returns the exit code.
int readEffective(const std::vector<PolicyEntry>& entries, Service& service, std::map<std::string, Effective>& result);

// Prints the difference and changes nothing. Returns the exit code.
int previewPolicies(const Request& request, const std::vector<PolicyEntry>& entries, Service& service);

}  // namespace cli
