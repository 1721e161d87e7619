// secure set: a value that is sealed at rest.
#include <optional>

#include "apps/sdconfig/commands/commands.h"
#include "apps/sdconfig/described/new_value.h"
#include "apps/sdconfig/request/letter_case.h"
#include "apps/sdconfig/service/policy_calls.h"
#include "apps/sdconfig/service/secure_values.h"
#include "apps/sdconfig/service/service.h"
#include "apps/sdconfig/terminal/messages.h"
#include "apps/sdconfig/terminal/output.h"
#include "apps/sdconfig/terminal/secret_input.h"
#include "libsdconfig/dmconfig.h"

namespace cli {

namespace {

SecretInput secretOf(const Request& request) {
    if (request.valueGiven && !request.valueFromInput) return {request.value, "", ""};
    SecretInput input = readSecret("Value of " + quoted(request.key) + " (not shown): ");
    // The store keeps a value up to its first zero byte; half a secret is worse than none.
    if (input.value.find('\0') != std::string::npos)
        return {"", "the value has a zero byte, which can't be stored", "encode it as text, in base64 for example"};
    return input;
}

// The policy that an empty local value hides, as far as the service lists it.
std::optional<int> hiddenPriority(const std::string& key) {
    sd::PolicyList list;
    (void)sd::DMConfig::GetInstance()->GetAllKeys(&list);
    for (const auto& [uri, policy] : list)
        if (folded(uri) == folded(key) && policy.begin()->second <= sd::kLocalPriority) return policy.begin()->second;
    return std::nullopt;
}

}  // namespace

// The service comes first: nobody types a secret to learn then that there was none to take it.
int setSecure(const Request& request, Service& service) {
    const NewValue described(request, Target::Secure);
    if (described.goesElsewhere()) return kElsewhere;
    if (const int code = service.require()) return code;
    SecretInput secret = secretOf(request);
    if (!secret.problem.empty()) return unfitSecret(request, {secret.problem, secret.next});
    if (const int code = described.fit(secret.value)) return code;
    const auto [done, code] = storeSecure(request.key, secret.value, service);
    if (code) return code;
    if (done && sd::DMConfig::GetInstance()->isStrongControl(request.key)) {
        const auto machine = governing(service, request.key);
        machine ? noteGoverned(machine->place()) : noteOutweighed(request.key);
    }
    if (done && secret.value.empty())
        if (const auto priority = hiddenPriority(request.key)) noteHides(request.key, *priority);
    return printDone(request, done, secureWriteRefused);
}

}  // namespace cli
