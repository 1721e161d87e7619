// key rotate: a new key, and everything sealed under it where that is asked for.
#include "apps/sdconfig/commands/commands.h"
#include "apps/sdconfig/service/key_calls.h"
#include "apps/sdconfig/service/service.h"
#include "apps/sdconfig/terminal/messages.h"
#include "apps/sdconfig/terminal/output.h"

namespace cli {

namespace {

int resealRows(const Request& request, const Service& service, const Rotated& rotated) {
    if (rotated.goesOn) noteResealingGoesOn(rotated.keyId);
    const Resealed resealed = [&] {
        ProgressLine progress("sealing anew");
        return resealAll(service, [&](int percent) { progress.show(percent); });
    }();
    if (!resealed) {
        const int code = refused(request, resealed);
        noteResealingInterrupted();
        return code;
    }
    const Object object{{"key", resealed.keyId},
                        {"went_on", rotated.goesOn},
                        {"sealed", resealed.sealed},
                        {"left", resealed.left.count},
                        {"rows_left", objectsOf(resealed.left)},
                        {"done", resealed.left.count == 0}};
    const std::string text = "key " + resealed.keyId +
                             " seals; sealed anew with it: " + std::to_string(resealed.sealed) +
                             " values and policies\n";
    const int printed = print(request, text, object);
    return resealed.left.count == 0 ? printed : rowsLeft(request, resealed.left.count, textOf(resealed.left));
}

}  // namespace

int rotateKey(const Request& request, Service& service) {
    if (const int code = service.require()) return code;
    const Rotated rotated = rotate(service, request.reseal);
    if (!rotated) return refused(request, rotated);
    if (request.reseal) return resealRows(request, service, rotated);
    return print(request, "key " + rotated.keyId + " seals; what was sealed before still opens\n",
                 {{"key", rotated.keyId}, {"done", true}});
}

}  // namespace cli
