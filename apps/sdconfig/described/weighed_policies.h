// Policies of a file, weighed against the descriptions of their keys.
#pragma once

#include <vector>

#include "apps/sdconfig/request/request.h"
#include "policies/policy_file.h"

namespace cli {

// Makes the values those that are stored, and tells what is not as the descriptions have it. Returns the exit code:
// where it isn't kDone, it told all that is wrong, with the lines of the request's file.
int weighPolicies(const Request& request, std::vector<sd::PolicyEntry>& entries);

}  // namespace cli
