// policy get: the value in force, the policy's or the local one.
#include "apps/sdconfig/commands/commands.h"
#include "apps/sdconfig/policy/change_output.h"
#include "apps/sdconfig/policy/effective.h"
#include "apps/sdconfig/service/service.h"
#include "apps/sdconfig/terminal/messages.h"
#include "apps/sdconfig/terminal/output.h"
#include "libsdconfig/dmconfig.h"

namespace cli {

int getPolicy(const Request& request, Service& service) {
    if (const int code = service.require()) return code;
    const auto [policy, code] = service.call("GetPolicyWithUri key", request.key, [&] {
        return sd::DMConfig::GetInstance()->GetPolicyWithUri(request.key);
    });
    if (code) return code;
    const Effective effective = answered(policy);
    const bool set = !effective.value.empty();
    Object object = uriObject(request);
    object["set"] = set;
    set ? addBytes(object, "value", effective.value) : void(object["value"] = nullptr);
    object["priority"] = effective.priority;
    const int printed = print(request, set ? shown(effective.value) + "\n" : "", object);
    return set ? printed : policyUnset(request);
}

}  // namespace cli
