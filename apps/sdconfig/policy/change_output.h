// How commands on policies show whose policy they changed.
#pragma once

#include <optional>

#include "apps/common/policy.h"
#include "apps/sdconfig/request/request.h"
#include "apps/sdconfig/terminal/output.h"

namespace cli {

// The request's key, as the URI of a policy.
Object uriObject(const Request& request);

// Prints that the change was done, or tells that it was refused: by a policy of the machine, or else. Returns the exit
// code.
int printPolicyChange(const Request& request, Object object, bool done,
                      const std::optional<apps::MachinePolicy>& governing = std::nullopt);

}  // namespace cli
