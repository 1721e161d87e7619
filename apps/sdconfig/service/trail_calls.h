// The call about the trail.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "apps/sdconfig/terminal/output.h"

namespace cli {

class Service;

// How the service's trail is.
struct TrailState {
    bool isKept = false;  // what follows is of one that is
    std::string head;
    std::uint64_t last = 0;  // the entry up to which it is on the disk
    std::uint64_t waiting = 0;
    std::uint64_t lost = 0;  // that found no room while others waited
    std::int64_t lostSince = 0;
    std::string why;  // entries wait; "": they don't

    // Whether entries wait for nothing but a key ring, which the first value makes and its slots open.
    bool waitsForRing() const;
    bool isAmiss() const { return isKept && (lost > 0 || (!why.empty() && !waitsForRing())); }
};

// Nothing, without a word, where the service is of an earlier version.
std::optional<TrailState> trailState(const Service& service);

std::string textOf(const TrailState& trail);  // for a line
Object objectOf(const TrailState& trail);

}  // namespace cli
