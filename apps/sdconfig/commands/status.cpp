// status: whether the service is there, and how fast it answers.
#include "apps/sdconfig/commands/commands.h"
#include "apps/sdconfig/service/service.h"
#include "apps/sdconfig/service/slot_calls.h"
#include "apps/sdconfig/service/trail_calls.h"
#include "apps/sdconfig/terminal/messages.h"
#include "apps/sdconfig/terminal/output.h"
#include "src/sdconfig_protocol.h"

namespace cli {

namespace {

const char* stateOf(const SlottedRing& ring) {
    using State = sd::SDSecurity::KeyRingState;
    switch (ring.status.state) {
        case State::Absent:
            return "absent";
        case State::Broken:
            return "broken";
        case State::Locked:
            return "locked";
        default:
            return ring.isWrapped() ? "open" : "plain";
    }
}

Object ringObject(const std::optional<SlottedRing>& ring) {
    if (!ring) return {};
    return {{"state", stateOf(*ring)}, {"slots", slotsObject(*ring)}};
}

// Nothing of a ring without slots.
std::string ringText(const std::optional<SlottedRing>& ring) {
    if (!ring || !ring->isWrapped()) return "";
    if (ring->isLocked())
        return "key ring: locked, " + escaped(waitsFor(*ring)) + "; open it with: " + howToOpen(*ring) + "\n";
    return "key ring: " + std::string(stateOf(*ring)) + ", its slots are " + namesOf(*ring) + "\n";
}

// What the service tells of itself; nothing of what one of an earlier version doesn't know.
struct Told {
    std::optional<SlottedRing> ring;
    std::optional<TrailState> trail;
};

Object statusObject(const Service& service, const Probe& probe, const Told& told) {
    const int pid = service.processId();
    Object object{{"service", sd::protocol::kServiceName}, {"running", probe.listening}, {"answers", probe.answered}};
    object["pid"] = probe.listening && pid > 0 ? Object(pid) : Object();
    object["round_trip_us"] = probe.answered ? Object(probe.roundTrip.count()) : Object();
    addBytes(object, "socket", service.socketPath());
    object["key_ring"] = ringObject(told.ring);
    object["trail"] = told.trail ? objectOf(*told.trail) : Object();
    return object;
}

std::string statusText(const Service& service, const Probe& probe, const Told& told) {
    if (!probe.listening) return "not running\n";
    const int pid = service.processId();
    return std::string(probe.answered ? "running\n" : "running, not answering\n") +
           "pid: " + (pid > 0 ? std::to_string(pid) : "unknown") + "\n" +
           (probe.answered ? "round trip: " + std::to_string(probe.roundTrip.count()) + " us\n" : "") +
           "socket: " + shownInLine(service.socketPath()) + "\n" + ringText(told.ring) +
           (told.trail ? "trail: " + escaped(textOf(*told.trail)) + "\n" : "");
}

}  // namespace

int showStatus(const Request& request, Service& service) {
    const Probe probe = service.probe();
    const Told told = probe.answered ? Told{knownRing(service), trailState(service)} : Told{};
    const int printed = print(request, statusText(service, probe, told), statusObject(service, probe, told));
    if (!probe.listening) return notRunning(request.command, service.socketPath(), service.lookedAt());
    if (!probe.answered) return noAnswer(request.command, probe.how, service.socketPath());
    return printed;
}

}  // namespace cli
