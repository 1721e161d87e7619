// Policies govern secure values; somebody may set one for a property.
#pragma once

#include <string>

#include "apps/sdconfig/policy/effective.h"

namespace cli {

// Whether there is a property of that key, and no local secure value. now: what the service answers for the key as a
// policy's URI.
bool isOnlyProperty(const std::string& key, const Effective& now);

}  // namespace cli
