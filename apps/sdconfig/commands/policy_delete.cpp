// policy delete: a policy of a key.
#include "apps/sdconfig/commands/commands.h"
#include "apps/sdconfig/policy/change_output.h"
#include "apps/sdconfig/service/policy_calls.h"
#include "apps/sdconfig/service/service.h"
#include "apps/sdconfig/terminal/messages.h"
#include "apps/sdconfig/terminal/output.h"
#include "libsdconfig/dmconfig.h"

namespace cli {

int deletePolicy(const Request& request, Service& service) {
    if (const int code = service.require()) return code;
    const auto [done, code] = service.call("DeletePolicyWithUri key", request.key, [&] {
        return sd::DMConfig::GetInstance()->DeletePolicyWithUri(request.key);
    });
    if (code) return code;
    return printPolicyChange(request, uriObject(request), done, done ? std::nullopt : governing(service, request.key));
}

}  // namespace cli
