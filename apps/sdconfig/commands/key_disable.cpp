// key disable, key enable: whether a key opens.
#include "apps/sdconfig/commands/commands.h"
#include "apps/sdconfig/service/key_calls.h"
#include "apps/sdconfig/service/service.h"
#include "apps/sdconfig/terminal/output.h"

namespace cli {

namespace {

int setState(const Request& request, Service& service, bool enabled) {
    if (const int code = service.require()) return code;
    const KeyAnswer answer = setEnabled(service, request.key, enabled);
    if (!answer) return refused(request, answer);
    return print(request, "key " + answer.keyId + (enabled ? " opens\n" : " is disabled\n"),
                 {{"key", answer.keyId}, {"done", true}});
}

}  // namespace

int disableKey(const Request& request, Service& service) {
    return setState(request, service, false);
}

int enableKey(const Request& request, Service& service) {
    return setState(request, service, true);
}

}  // namespace cli
