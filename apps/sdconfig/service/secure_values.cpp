#include "apps/sdconfig/service/secure_values.h"

#include "apps/sdconfig/terminal/messages.h"
#include "libsdconfig/dmconfig.h"
#include "libsdconfig/sdconfig.h"
#include "libsdconfig/sdconfig_text.h"

namespace cli {

int readSecureValues(const std::vector<std::string>& keys, Service& service, std::vector<Lookup>& found) {
    for (const std::string& key : keys) {
        const auto [value, code] = service.call(
            "GetSecure the key", key, [&, &name = key] { return sd::SDConfig::GetInstance()->GetSecure(name); });
        if (code) return code;
        found.push_back({key, sd::textAsSet(value), value.empty() && service.isUnopenable(key)});
    }
    return kDone;
}

Answer<bool> storeSecure(const std::string& key, const std::string& value, Service& service) {
    return service.call("setsecure the key", key, [&] { return sd::SDConfig::GetInstance()->SetSecure(key, value); });
}

Answer<bool> removeSecure(const std::string& key, Service& service) {
    return service.call("DeleteSecure the key", key, [&] { return sd::SDConfig::GetInstance()->DeleteSecure(key); });
}

int printRemoved(const Request& request, bool done) {
    if (done && sd::DMConfig::GetInstance()->isStrongControl(request.key)) noteStaysInForce(request.key);
    return printDone(request, done, secureWriteRefused);
}

}  // namespace cli
