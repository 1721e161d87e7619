// secure get, set and delete: values that are sealed at rest.
#include "apps/sdconfig/commands.h"
#include "apps/sdconfig/data_access.h"
#include "apps/sdconfig/effective.h"
#include "apps/sdconfig/messages.h"
#include "apps/sdconfig/output.h"
#include "apps/sdconfig/secret_input.h"
#include "apps/sdconfig/secure_values.h"
#include "apps/sdconfig/service.h"
#include "libsdconfig/dmconfig.h"
#include "libsdconfig/sdconfig.h"
#include "libsdconfig/sdconfig_text.h"

namespace cli {

namespace {

SecretInput secretOf(const Request& request) {
    if (request.valueGiven && !request.valueFromInput) return {request.value, "", ""};
    SecretInput input = readSecret("Value of " + quoted(request.key) + " (not shown): ");
    // The store keeps a value up to its first zero byte; half a secret is worse than none.
    if (input.value.find('\0') != std::string::npos)
        return {"", "the value has a zero byte, which can't be stored", "encode it as text, in base64 for example"};
    return input;
}

Answer<bool> store(const std::string& key, const std::string& value, Service& service) {
    return service.call("setsecure the key", key, [&] { return sd::SDConfig::GetInstance()->SetSecure(key, value); });
}

Answer<bool> remove(const std::string& key, Service& service) {
    return service.call("DeleteSecure the key", key, [&] { return sd::SDConfig::GetInstance()->DeleteSecure(key); });
}

// Nothing of the key where the data folder can't be read.
Layers storedLayers(const Request& request, const Service& service) {
    const DataAccess access = findData(request, service);
    StoredLayers stored;
    const bool known = access.reader && stored.read(*access.reader, request.key).empty();
    return known ? stored.of(request.key) : Layers();
}

// The policy that an empty local row hides.
std::optional<apps::Policy> hiddenPolicy(const Layers& layers) {
    return weigh(layers).origin == Origin::EmptyRow ? layers.policy : std::nullopt;
}

// The store takes an empty row for none and leaves it where it is; one with a value goes. A policy's own is given to it
// for that moment, so that nobody reads a value that is not the one in force afterwards.
Answer<bool> removeEmptyRow(const std::string& key, const std::optional<apps::Policy>& policy, Service& service) {
    const bool hasValue = policy && !policy->value.empty();
    const Answer<bool> stored = store(key, hasValue ? policy->value : "deleted", service);
    return stored.result && !stored.exitCode ? remove(key, service) : stored;
}

Answer<bool> removeWhole(const Request& request, Service& service) {
    const Answer<bool> removed = remove(request.key, service);
    if (!removed.result || removed.exitCode) return removed;
    const Layers left = storedLayers(request, service);
    if (left.row != Layers::Row::Empty) return removed;
    const Answer<bool> emptied = removeEmptyRow(request.key, left.policy, service);
    if (const auto policy = hiddenPolicy(left); policy && emptied.result) noteLetThrough(policy->priority);
    return emptied;
}

}  // namespace

int readSecureValues(const std::vector<std::string>& keys, Service& service, std::vector<Lookup>& found) {
    for (const std::string& key : keys) {
        const auto [value, code] = service.call(
            "GetSecure the key", key, [&, &name = key] { return sd::SDConfig::GetInstance()->GetSecure(name); });
        if (code) return code;
        found.push_back({key, sd::textAsSet(value), value.empty() && service.isUnopenable(key)});
    }
    return kDone;
}

int getSecure(const Request& request, Service& service) {
    if (const int code = service.require()) return code;
    std::vector<Lookup> found;
    const int code = readSecureValues(request.keys, service, found);
    return code ? code : printValues(request, found.size() == 1, found, unset);
}

// The service comes first: nobody types a secret to learn then that there was none to take it.
int setSecure(const Request& request, Service& service) {
    if (const int code = service.require()) return code;
    const SecretInput secret = secretOf(request);
    if (!secret.problem.empty()) return unfitSecret(request, {secret.problem, secret.next});
    const auto [done, code] = store(request.key, secret.value, service);
    if (code) return code;
    if (done && sd::DMConfig::GetInstance()->isStrongControl(request.key)) noteOutweighed(request.key);
    if (done && secret.value.empty())
        if (const auto policy = hiddenPolicy(storedLayers(request, service))) noteHides(request.key, policy->priority);
    return printDone(request, done, secureWriteRefused);
}

int deleteSecure(const Request& request, Service& service) {
    if (const int code = service.require()) return code;
    const auto [done, code] = removeWhole(request, service);
    if (code) return code;
    if (done && sd::DMConfig::GetInstance()->isStrongControl(request.key)) noteStaysInForce(request.key);
    return printDone(request, done, secureWriteRefused);
}

}  // namespace cli
