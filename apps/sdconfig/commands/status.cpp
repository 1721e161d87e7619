// status: whether the service is there, and how fast it answers.
#include "apps/sdconfig/commands/commands.h"
#include "apps/sdconfig/service/service.h"
#include "apps/sdconfig/terminal/messages.h"
#include "apps/sdconfig/terminal/output.h"
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

int showStatus(const Request& request, Service& service) {
    const Probe probe = service.probe();
    const int printed = print(request, statusText(service, probe), statusObject(service, probe));
    if (!probe.listening) return notRunning(request.command, service.socketPath(), service.lookedAt());
    if (!probe.answered) return noAnswer(request.command, probe.how, service.socketPath());
    return printed;
}

}  // namespace cli
