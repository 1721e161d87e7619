#include "apps/sdconfig/service/trail_calls.h"

#include <charconv>

#include "apps/common/time_text.h"
#include "apps/sdconfig/service/service.h"
#include "platform/sdbus/sdbus.h"
#include "src/sdconfig_protocol.h"

namespace cli {

namespace {

constexpr char kKept[] = "bsssssss";

template <class Number>
Number numberOf(const std::string& text) {
    Number number = 0;
    (void)std::from_chars(text.data(), text.data() + text.size(), number);
    return number;
}

}  // namespace

bool TrailState::waitsForRing() const {
    return why.compare(0, 12, "the key ring") == 0;
}

std::optional<TrailState> trailState(const Service& service) {
    const auto answer = service.tryToAskKnown(
        sd::protocol::kTrailStatus, [](SDBusMessage&) {}, "b");
    if (!answer) return std::nullopt;
    TrailState trail;
    trail.isKept = answer->getBool(0) && answer->signature().compare(0, sizeof kKept - 1, kKept) == 0;
    if (!trail.isKept) return trail;
    trail.head = answer->getString(1);
    trail.last = numberOf<std::uint64_t>(answer->getString(2));
    trail.waiting = numberOf<std::uint64_t>(answer->getString(4));
    trail.lost = numberOf<std::uint64_t>(answer->getString(5));
    trail.lostSince = numberOf<std::int64_t>(answer->getString(6));
    trail.why = answer->getString(7);
    return trail;
}

std::string textOf(const TrailState& trail) {
    if (!trail.isKept) return "none is kept";
    std::string text = trail.last > 0 ? "up to entry " + std::to_string(trail.last) : "none yet";
    if (trail.waiting > 0) text += ", entries that wait: " + std::to_string(trail.waiting);
    if (!trail.why.empty()) text += ": " + trail.why;
    if (trail.lost > 0)
        text += "; that found no room: " + std::to_string(trail.lost) + ", since " +
                apps::timeText(trail.lostSince / 1'000'000);
    return text;
}

Object objectOf(const TrailState& trail) {
    if (!trail.isKept) return {{"kept", false}};
    return {{"kept", true},
            {"last", trail.last},
            {"head", trail.head},
            {"waiting", trail.waiting},
            {"lost", trail.lost},
            {"lost_since", trail.lost > 0 ? Object(apps::timeText(trail.lostSince / 1'000'000)) : Object()},
            {"why", trail.why.empty() ? Object() : Object(trail.why)}};
}

}  // namespace cli
