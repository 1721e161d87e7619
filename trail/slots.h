// What the databases' slots say of the trail: the lines that commits carried lately.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "trail/chain.h"
#include "trail/entry.h"

namespace sd::trail {

struct SlotLine {
    std::string text;
    Entry entry;
    std::string digest;
};

// Those of the slots' lines that follow each other without a gap up to the last one, in their order.
std::vector<SlotLine> slotLines(const std::vector<std::string>& slots, const Digest& digest);

struct SlotFindings {
    std::vector<SlotLine> lacking;  // by the file, in the order in which they are to be put back
    std::vector<Entry> damages;     // what does not fit, an entry DAMAGE each, without its place in the chain
};

// last: the last line of the file. Lines up to it are compared with those of the file that came since its last start,
// which `folder` has; older ones a start before has dealt with.
SlotFindings readSlots(const std::vector<std::string>& slots, const Head& last, const std::string& folder,
                       const Digest& digest);

// An entry of the service itself that says what was found to be damaged.
Entry damageEntry(const std::string& why);

}  // namespace sd::trail
