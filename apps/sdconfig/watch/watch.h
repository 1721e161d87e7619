// Prints changes of keys as they happen, through restarts of the service. docs/listeners.md has the recipe.
#pragma once

#include <functional>
#include <set>
#include <string>

#include "apps/sdconfig/request/request.h"

namespace cli {

class Service;

// The keys of the stored secure values and policies. Asked when patterns are watched, at the start and when the service
// has been away.
using StoredKeys = std::function<std::set<std::string>()>;

// Returns the exit code, once a signal has come or nobody reads any more.
int watch(const Request& request, Service& service, StoredKeys storedKeys);

}  // namespace cli
