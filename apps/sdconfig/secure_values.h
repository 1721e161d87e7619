// Secure values as they were set.
#pragma once

#include <string>
#include <vector>

#include "apps/sdconfig/output.h"

namespace cli {

class Service;

// Asks the service for each key. Returns the exit code.
int readSecureValues(const std::vector<std::string>& keys, Service& service, std::vector<Lookup>& found);

}  // namespace cli
