// sign: the signature of a text.
#include "apps/sdconfig/commands/commands.h"
#include "apps/sdconfig/service/service.h"
#include "apps/sdconfig/terminal/messages.h"
#include "apps/sdconfig/terminal/output.h"
#include "libsdconfig/sdconfig.h"

namespace cli {

int signText(const Request& request, Service& service) {
    if (const int code = service.require()) return code;
    const auto [signature, code] = service.call(Service::wordsOfText("SignRequest the content", request.text),
                                                [&] { return sd::SDConfig::GetInstance()->SignRequest(request.text); });
    if (code) return code;
    if (signature.empty() && !request.text.empty()) return notSigned(request);
    Object object;
    addBytes(object, "signature", signature);
    return print(request, shown(signature) + "\n", object);
}

}  // namespace cli
