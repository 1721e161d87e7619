// delete: a property.
#include "apps/sdconfig/commands/commands.h"
#include "apps/sdconfig/service/service.h"
#include "apps/sdconfig/terminal/messages.h"
#include "apps/sdconfig/terminal/output.h"
#include "libsdconfig/sdconfig.h"

namespace cli {

int deleteProperty(const Request& request, Service& service) {
    if (const int code = service.require()) return code;
    const auto [done, code] = service.call("DeleteProperty the key", request.key,
                                           [&] { return sd::SDConfig::GetInstance()->DeleteProperty(request.key); });
    return code ? code : printDone(request, done, deleteRefused);
}

}  // namespace cli
