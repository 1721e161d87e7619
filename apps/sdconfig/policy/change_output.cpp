#include "apps/sdconfig/policy/change_output.h"

#include "apps/sdconfig/terminal/messages.h"

namespace cli {

Object uriObject(const Request& request) {
    Object object;
    addBytes(object, "uri", request.key);
    return object;
}

int printPolicyChange(const Request& request, Object object, bool done) {
    object["done"] = done;
    const int printed = print(request, "", object);
    return done ? printed : policyRefused(request);
}

}  // namespace cli
