// policy clear: all policies.
#include "apps/sdconfig/commands/commands.h"
#include "apps/sdconfig/policy/change_output.h"
#include "apps/sdconfig/service/policy_calls.h"
#include "apps/sdconfig/service/service.h"
#include "apps/sdconfig/terminal/confirmation.h"
#include "apps/sdconfig/terminal/messages.h"
#include "apps/sdconfig/terminal/output.h"
#include "libsdconfig/dmconfig.h"

namespace cli {

int clearPolicies(const Request& request, Service& service) {
    if (!canConfirm(request)) return notAskable(request, "all policies");
    if (const int code = service.require()) return code;
    if (!confirmed(request, "Delete all policies?")) return notConfirmed(request);
    const auto [done, code] =
        service.call("ClearAllKeys(", [&] { return sd::DMConfig::GetInstance()->ClearAllKeys(); });
    if (code) return code;
    if (const auto machine = listGoverning(service); done && machine && !machine->empty())
        notePoliciesStay(machine->size());
    return printPolicyChange(request, Object(), done);
}

}  // namespace cli
