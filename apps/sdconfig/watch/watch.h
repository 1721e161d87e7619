// Prints changes of keys as they happen, through restarts of the service. docs/listeners.md has the recipe.
#pragma once

#include <functional>
#include <optional>
#include <set>
#include <string>

#include "apps/sdconfig/request/request.h"
#include "apps/sdconfig/terminal/output.h"

namespace cli {

class Service;

// The keys of the stored secure values and policies. Asked when patterns are watched, at the start and when the service
// has been away.
using StoredKeys = std::function<std::set<std::string>()>;

// Who made the latest change of a key; nothing where that isn't known.
struct Doer {
    std::string words;  // "by /usr/bin/velmar-settings, pid 4711"
    Object entry;       // of the trail
};
using LastDoer = std::function<std::optional<Doer>(const std::string& key)>;

// Returns the exit code, once a signal has come or nobody reads any more.
int watch(const Request& request, Service& service, StoredKeys storedKeys, LastDoer lastDoer);

}  // namespace cli
