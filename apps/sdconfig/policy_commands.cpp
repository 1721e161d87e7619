// policy set, get, delete, list, strong and clear.
#include <unistd.h>

#include <iostream>

#include "apps/sdconfig/commands.h"
#include "apps/sdconfig/effective.h"
#include "apps/sdconfig/messages.h"
#include "apps/sdconfig/output.h"
#include "apps/sdconfig/policy_value.h"
#include "apps/sdconfig/service.h"
#include "apps/sdconfig/stored_policies.h"
#include "libsdconfig/dmconfig.h"

namespace cli {

namespace {

sd::DMConfig& policies() {
    return *sd::DMConfig::GetInstance();
}

Object uriObject(const Request& request) {
    Object object;
    addBytes(object, "uri", request.key);
    return object;
}

int printChange(const Request& request, Object object, bool done) {
    object["done"] = done;
    const int printed = print(request, "", object);
    return done ? printed : policyRefused(request);
}

Object listedObject(const StoredPolicy& stored) {
    Object object;
    addBytes(object, "uri", stored.uri);
    object["readable"] = stored.policy.has_value();
    if (!stored.policy) return object;
    addBytes(object, "value", stored.policy->value);
    object["priority"] = stored.policy->priority;
    return object;
}

std::string listedText(const StoredPolicy& stored) {
    const std::string uri = escaped(stored.uri) + "\t";
    if (!stored.policy) return uri + "-\t(can't be read)\n";
    return uri + std::to_string(stored.policy->priority) + "\t" + escaped(stored.policy->value) + "\n";
}

// Whether the user, at the terminal, says yes.
bool confirmed() {
    constexpr char kQuestion[] = "Delete all policies? [y/N] ";
    (void)!::write(STDERR_FILENO, kQuestion, sizeof kQuestion - 1);
    std::string line;
    std::getline(std::cin, line);
    return line == "y" || line == "Y" || line == "yes";
}

}  // namespace

int setPolicy(const Request& request, Service& service) {
    const auto priority = parsePriority(request.priority);
    if (!priority) return unfitPolicy(request, "PRIORITY has to be a whole number from 0 to 127");
    if (const std::string unfit = unfitPolicyValue(request.value); !unfit.empty())
        return unfitPolicy(request, "VALUE " + unfit);
    if (const int code = service.require()) return code;
    const auto [done, code] = service.call("SetPolicyWithUri key", request.key, [&, p = *priority] {
        return policies().SetPolicyWithUri(request.key, {{policyBytes(request.value), p}});
    });
    return code ? code : printChange(request, uriObject(request), done);
}

int getPolicy(const Request& request, Service& service) {
    if (const int code = service.require()) return code;
    const auto [policy, code] =
        service.call("GetPolicyWithUri key", request.key, [&] { return policies().GetPolicyWithUri(request.key); });
    if (code) return code;
    const Effective effective = answered(policy);
    const bool set = !effective.value.empty();
    Object object = uriObject(request);
    object["set"] = set;
    set ? addBytes(object, "value", effective.value) : void(object["value"] = nullptr);
    object["priority"] = effective.priority;
    const int printed = print(request, set ? effective.value + "\n" : "", object);
    return set ? printed : policyUnset(request);
}

int deletePolicy(const Request& request, Service& service) {
    if (const int code = service.require()) return code;
    const auto [done, code] = service.call("DeletePolicyWithUri key", request.key,
                                           [&] { return policies().DeletePolicyWithUri(request.key); });
    return code ? code : printChange(request, uriObject(request), done);
}

int listPolicies(const Request& request, Service& service) {
    const StoredPolicies stored = storedPolicies(request, service);
    if (stored.exitCode) return stored.exitCode;
    std::string text;
    Object object{{"policies", Object::array()}, {"complete", !stored.cut}};
    for (const StoredPolicy& one : stored.all) {
        text += listedText(one);
        object["policies"].push_back(listedObject(one));
    }
    return print(request, text, object);
}

int showStrong(const Request& request, Service& service) {
    if (const int code = service.require()) return code;
    const auto [strong, code] =
        service.call("isStrongControl key", request.key, [&] { return policies().isStrongControl(request.key); });
    if (code) return code;
    Object object = uriObject(request);
    object["strong"] = strong;
    const int printed = print(request, strong ? "strong\n" : "not strong\n", object);
    return strong ? printed : kRefused;
}

int clearPolicies(const Request& request, Service& service) {
    if (!request.yes && !::isatty(STDIN_FILENO)) return notClearedUnasked(request);
    if (const int code = service.require()) return code;
    if (!request.yes && !confirmed()) return notCleared(request);
    const auto [done, code] = service.call("ClearAllKeys(", [&] { return policies().ClearAllKeys(); });
    return code ? code : printChange(request, Object(), done);
}

}  // namespace cli
