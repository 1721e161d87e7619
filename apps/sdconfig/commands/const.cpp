// const: a constant of the service.
#include "apps/sdconfig/commands/commands.h"
#include "apps/sdconfig/service/service.h"
#include "apps/sdconfig/terminal/messages.h"
#include "apps/sdconfig/terminal/output.h"
#include "libsdconfig/sdconfig.h"

namespace cli {

int getConst(const Request& request, Service& service) {
    if (const int code = service.require()) return code;
    const auto [value, code] = service.call("GetConst the key", request.key,
                                            [&] { return sd::SDConfig::GetInstance()->GetConst(request.key); });
    return code ? code : printValue(request, "name", value, noSuchConst);
}

}  // namespace cli
