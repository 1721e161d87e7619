// secure get, set and delete: values that are sealed at rest.
#include "apps/sdconfig/commands.h"
#include "apps/sdconfig/messages.h"
#include "apps/sdconfig/output.h"
#include "apps/sdconfig/secret_input.h"
#include "apps/sdconfig/service.h"
#include "libsdconfig/sdconfig.h"
#include "libsdconfig/sdconfig_text.h"

namespace cli {

namespace {

SecretInput secretOf(const Request& request) {
    if (request.valueGiven) return {request.value, ""};
    SecretInput input = readSecret("Value of " + quoted(request.key) + " (not shown): ");
    // The store keeps a value up to its first zero byte; half a secret is worse than none.
    if (input.value.find('\0') != std::string::npos) return {"", "the value has a zero byte, which can't be stored"};
    return input;
}

}  // namespace

int getSecure(const Request& request, Service& service) {
    if (const int code = service.require()) return code;
    const auto [value, code] = service.call("GetSecure the key", request.key,
                                            [&] { return sd::SDConfig::GetInstance()->GetSecure(request.key); });
    return code ? code : printValue(request, "key", sd::textAsSet(value), unset);
}

// The service comes first: nobody types a secret to learn then that there was none to take it.
int setSecure(const Request& request, Service& service) {
    if (const int code = service.require()) return code;
    const SecretInput secret = secretOf(request);
    if (!secret.problem.empty()) return unfitSecret(request, secret.problem);
    const auto [done, code] = service.call("setsecure the key", request.key, [&, &value = secret.value] {
        return sd::SDConfig::GetInstance()->SetSecure(request.key, value);
    });
    return code ? code : printDone(request, done, secureWriteRefused);
}

int deleteSecure(const Request& request, Service& service) {
    if (const int code = service.require()) return code;
    const auto [done, code] = service.call("DeleteSecure the key", request.key,
                                           [&] { return sd::SDConfig::GetInstance()->DeleteSecure(request.key); });
    return code ? code : printDone(request, done, secureWriteRefused);
}

}  // namespace cli
