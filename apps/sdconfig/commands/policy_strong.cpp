// policy strong: whether a policy overrides the local value.
#include "apps/sdconfig/commands/commands.h"
#include "apps/sdconfig/policy/change_output.h"
#include "apps/sdconfig/service/service.h"
#include "apps/sdconfig/terminal/messages.h"
#include "apps/sdconfig/terminal/output.h"
#include "libsdconfig/dmconfig.h"

namespace cli {

int showStrong(const Request& request, Service& service) {
    if (const int code = service.require()) return code;
    const auto [strong, code] = service.call("isStrongControl key", request.key,
                                             [&] { return sd::DMConfig::GetInstance()->isStrongControl(request.key); });
    if (code) return code;
    Object object = uriObject(request);
    object["strong"] = strong;
    const int printed = print(request, strong ? "strong\n" : "not strong\n", object);
    return strong ? printed : kRefused;
}

}  // namespace cli
