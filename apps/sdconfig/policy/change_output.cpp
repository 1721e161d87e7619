#include "apps/sdconfig/policy/change_output.h"

#include "apps/sdconfig/terminal/messages.h"

namespace cli {

Object uriObject(const Request& request) {
    Object object;
    addBytes(object, "uri", request.key);
    return object;
}

int printPolicyChange(const Request& request, Object object, bool done,
                      const std::optional<apps::MachinePolicy>& governing) {
    object["done"] = done;
    if (!done && governing) {
        addBytes(object, "file", governing->file);
        object["line"] = governing->line;
    }
    const int printed = print(request, "", object);
    if (done) return printed;
    return governing ? policyGoverned(request, governing->place()) : policyRefused(request);
}

}  // namespace cli
