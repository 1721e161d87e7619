// The calls about the policies of the machine, which the service reads from files. An earlier version's service has
// none, and leaves them without an answer.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "apps/common/policy.h"

namespace cli {

class Service;

// Those of the URIs that the machine's policies govern, in their order. Nothing where the service doesn't tell.
std::optional<std::vector<apps::MachinePolicy>> governing(const Service& service, const std::vector<std::string>& uris);
std::optional<apps::MachinePolicy> governing(const Service& service, const std::string& uri);

// All that govern the service's user, in the order of their URIs without letter case. Nothing likewise.
std::optional<std::vector<apps::MachinePolicy>> listGoverning(const Service& service);

}  // namespace cli
