// Secure values as they were set.
#pragma once

#include <string>
#include <vector>

#include "apps/sdconfig/service/service.h"
#include "apps/sdconfig/terminal/output.h"

namespace cli {

// Asks the service for each key. Returns the exit code.
int readSecureValues(const std::vector<std::string>& keys, Service& service, std::vector<Lookup>& found);

Answer<bool> storeSecure(const std::string& key, const std::string& value, Service& service);
Answer<bool> removeSecure(const std::string& key, Service& service);

// Whether the request's key was removed, and what gives it a value all the same. Returns the exit code.
int printRemoved(const Request& request, bool done);

}  // namespace cli
