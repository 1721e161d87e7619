// secure delete: a value that is sealed at rest, as far as the service tells that there is one.
#include "apps/sdconfig/commands/commands.h"
#include "apps/sdconfig/policy/effective.h"
#include "apps/sdconfig/service/secure_values.h"
#include "apps/sdconfig/service/service.h"
#include "apps/sdconfig/terminal/messages.h"
#include "libsdconfig/dmconfig.h"

namespace cli {

namespace {

Answer<sd::PolicyMap> inForce(const Request& request, Service& service) {
    return service.call("GetPolicyWithUri key", request.key,
                        [&] { return sd::DMConfig::GetInstance()->GetPolicyWithUri(request.key); });
}

}  // namespace

// The service takes an empty row for none and leaves it, and tells nobody of it. What shows a value that is gone
// afterwards was none.
int deleteShownSecure(const Request& request, Service& service) {
    if (const int code = service.require()) return code;
    const auto before = inForce(request, service);
    if (before.exitCode) return before.exitCode;
    if (answered(before.result).origin != Origin::LocalOrPolicy) return kElsewhere;
    const auto removed = removeSecure(request.key, service);
    if (removed.exitCode || !removed.result)
        return removed.exitCode ? removed.exitCode : printRemoved(request, removed.result);
    const auto after = inForce(request, service);
    if (after.exitCode) return after.exitCode;
    return after.result == before.result ? kElsewhere : printRemoved(request, true);
}

}  // namespace cli
