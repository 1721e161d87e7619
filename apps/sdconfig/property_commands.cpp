// get, set and delete: plain properties.
#include "apps/sdconfig/commands.h"
#include "apps/sdconfig/messages.h"
#include "apps/sdconfig/output.h"
#include "apps/sdconfig/service.h"
#include "libsdconfig/sdconfig.h"

namespace cli {

namespace {

int getLocally(const Request& request) {
    if (!request.productDir.empty()) sd::SDConfig::setVelmarDataPath(request.productDir);
    const std::string value = sd::SDConfig::GetInstance()->GetProperty(request.key, true);
    return printValue(request, "key", value, unsetHere);
}

}  // namespace

int getProperty(const Request& request, Service& service) {
    if (request.local) return getLocally(request);
    if (const int code = service.require()) return code;
    const auto [value, code] = service.call("GetProperty the key", request.key,
                                            [&] { return sd::SDConfig::GetInstance()->GetProperty(request.key); });
    return code ? code : printValue(request, "key", value, unset);
}

int setProperty(const Request& request, Service& service) {
    if (const int code = service.require()) return code;
    const auto [done, code] = service.call("SetProperty the key", request.key, [&] {
        return sd::SDConfig::GetInstance()->SetProperty(request.key, request.value);
    });
    return code ? code : printDone(request, done, setRefused);
}

int deleteProperty(const Request& request, Service& service) {
    if (const int code = service.require()) return code;
    const auto [done, code] = service.call("DeleteProperty the key", request.key,
                                           [&] { return sd::SDConfig::GetInstance()->DeleteProperty(request.key); });
    return code ? code : printDone(request, done, deleteRefused);
}

}  // namespace cli
