// Who makes calls: what the kernel knows of a caller's process at this moment.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>

#include "platform/sdbus/sdbus.h"
#include "trail/entry.h"

namespace sd {

// A process by its number: its program, its unit or control group, its name. Told as they are now, which proves
// nothing: a process may become another program, and name itself as it likes. Where it began after the peer was
// admitted it is another one that has the number by now, and nothing of it is told.
trail::Peer lookUp(const SDBusPeer& peer, const std::string& proc = "/proc");

// Looks up the callers, each connection's at most once a second, since that takes longer than many calls do. One thread
// at a time.
class Callers {
public:
    // Nothing where the bus layer, a host's own, can't tell.
    std::optional<trail::Peer> of(const SDBusMessage& call);

private:
    using Clock = std::chrono::steady_clock;

    struct Known {
        trail::Peer peer;
        Clock::time_point when;
    };
    std::unordered_map<std::uint64_t, Known> mKnown;  // by connection
};

}  // namespace sd
