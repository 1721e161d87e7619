// secure get: values that are sealed at rest.
#include "apps/sdconfig/commands/commands.h"
#include "apps/sdconfig/service/secure_values.h"
#include "apps/sdconfig/service/service.h"
#include "apps/sdconfig/terminal/messages.h"
#include "apps/sdconfig/terminal/output.h"

namespace cli {

int getSecure(const Request& request, Service& service) {
    if (const int code = service.require()) return code;
    std::vector<Lookup> found;
    const int code = readSecureValues(request.keys, service, found);
    return code ? code : printValues(request, found.size() == 1, found, unset);
}

}  // namespace cli
