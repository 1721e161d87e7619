// set: a property, until the service stops.
#include "apps/sdconfig/commands/commands.h"
#include "apps/sdconfig/described/new_value.h"
#include "apps/sdconfig/service/service.h"
#include "apps/sdconfig/terminal/messages.h"
#include "apps/sdconfig/terminal/output.h"
#include "libsdconfig/sdconfig.h"

namespace cli {

int setProperty(const Request& request, Service& service) {
    const NewValue described(request, Target::Property);
    if (described.goesElsewhere()) return kElsewhere;
    if (const int code = service.require()) return code;
    std::string value = request.value;
    if (const int code = described.fit(value)) return code;
    const auto [done, code] = service.call("SetProperty the key", request.key, [&] {
        return sd::SDConfig::GetInstance()->SetProperty(request.key, value);
    });
    return code ? code : printDone(request, done, setRefused);
}

}  // namespace cli
