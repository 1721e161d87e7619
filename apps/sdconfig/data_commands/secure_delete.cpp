// secure delete: a value that is sealed at rest, and an empty row of it.
#include "apps/sdconfig/data_commands/data_commands.h"
#include "apps/sdconfig/reading/stored_layers.h"
#include "apps/sdconfig/service/secure_values.h"
#include "apps/sdconfig/service/service.h"
#include "apps/sdconfig/terminal/messages.h"
#include "apps/sdconfig/terminal/output.h"
#include "libsdconfig/dmconfig.h"
#include "libsdconfig/sdconfig.h"

namespace cli {

namespace {

// The store takes an empty row for none and leaves it where it is; one with a value goes. A policy's own is given to it
// for that moment, so that nobody reads a value that is not the one in force afterwards.
Answer<bool> removeEmptyRow(const std::string& key, const std::optional<apps::Policy>& policy, Service& service) {
    const bool hasValue = policy && !policy->value.empty();
    const Answer<bool> stored = storeSecure(key, hasValue ? policy->value : "deleted", service);
    return stored.result && !stored.exitCode ? removeSecure(key, service) : stored;
}

Answer<bool> removeWhole(const Request& request, Service& service) {
    const Answer<bool> removed = removeSecure(request.key, service);
    if (!removed.result || removed.exitCode) return removed;
    const Layers left = storedLayers(request, service);
    if (left.row != Layers::Row::Empty) return removed;
    const Answer<bool> emptied = removeEmptyRow(request.key, left.policy, service);
    if (const auto policy = hiddenPolicy(left); policy && emptied.result) noteLetThrough(policy->priority);
    return emptied;
}

}  // namespace

int deleteSecure(const Request& request, Service& service) {
    if (const int code = service.require()) return code;
    const auto [done, code] = removeWhole(request, service);
    return code ? code : printRemoved(request, done);
}

}  // namespace cli
