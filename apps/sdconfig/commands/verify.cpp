// verify: whether a signature fits a text.
#include "apps/sdconfig/commands/commands.h"
#include "apps/sdconfig/service/service.h"
#include "apps/sdconfig/terminal/messages.h"
#include "apps/sdconfig/terminal/output.h"
#include "libsdconfig/sdconfig.h"

namespace cli {

int verifyText(const Request& request, Service& service) {
    if (const int code = service.require()) return code;
    const auto [valid, code] = service.call(Service::wordsOfText("VerifyRequest the content", request.text), [&] {
        return sd::SDConfig::GetInstance()->VerifyRequest(request.text, request.signature);
    });
    if (code) return code;
    const int printed = print(request, valid ? "valid\n" : "invalid\n", {{"valid", valid}});
    return valid ? printed : kRefused;
}

}  // namespace cli
