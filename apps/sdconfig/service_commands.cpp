// const, sign, verify and status: what is asked of the service itself.
#include "apps/sdconfig/commands.h"
#include "apps/sdconfig/messages.h"
#include "apps/sdconfig/output.h"
#include "apps/sdconfig/service.h"
#include "libsdconfig/sdconfig.h"
#include "src/sdconfig_protocol.h"

namespace cli {

namespace {

Object statusObject(const Service& service, const Probe& probe) {
    const int pid = service.processId();
    Object object{{"service", sd::protocol::kServiceName}, {"running", probe.listening}, {"answers", probe.answered}};
    object["pid"] = probe.listening && pid > 0 ? Object(pid) : Object();
    object["round_trip_us"] = probe.answered ? Object(probe.roundTrip.count()) : Object();
    addBytes(object, "socket", service.socketPath());
    return object;
}

std::string statusText(const Service& service, const Probe& probe) {
    if (!probe.listening) return "not running\n";
    const int pid = service.processId();
    return std::string(probe.answered ? "running\n" : "running, not answering\n") +
           "pid: " + (pid > 0 ? std::to_string(pid) : "unknown") + "\n" +
           (probe.answered ? "round trip: " + std::to_string(probe.roundTrip.count()) + " us\n" : "") +
           "socket: " + shownInLine(service.socketPath()) + "\n";
}

}  // namespace

int getConst(const Request& request, Service& service) {
    if (const int code = service.require()) return code;
    const auto [value, code] = service.call("GetConst the key", request.key,
                                            [&] { return sd::SDConfig::GetInstance()->GetConst(request.key); });
    return code ? code : printValue(request, "name", value, noSuchConst);
}

int signText(const Request& request, Service& service) {
    if (const int code = service.require()) return code;
    const auto [signature, code] = service.call("SignRequest the content", request.text,
                                                [&] { return sd::SDConfig::GetInstance()->SignRequest(request.text); });
    if (code) return code;
    if (signature.empty() && !request.text.empty()) return notSigned(request);
    Object object;
    addBytes(object, "signature", signature);
    return print(request, shown(signature) + "\n", object);
}

int verifyText(const Request& request, Service& service) {
    if (const int code = service.require()) return code;
    const auto [valid, code] = service.call("VerifyRequest the content", request.text, [&] {
        return sd::SDConfig::GetInstance()->VerifyRequest(request.text, request.signature);
    });
    if (code) return code;
    const int printed = print(request, valid ? "valid\n" : "invalid\n", {{"valid", valid}});
    return valid ? printed : kRefused;
}

int showStatus(const Request& request, Service& service) {
    const Probe probe = service.probe();
    const int printed = print(request, statusText(service, probe), statusObject(service, probe));
    if (!probe.listening) return notRunning(request.command, service.socketPath(), service.lookedAt());
    if (!probe.answered) return noAnswer(request.command, probe.how, service.socketPath());
    return printed;
}

}  // namespace cli
