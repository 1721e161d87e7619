// What the databases' slots say of the trail: the lines that commits carried lately.
#pragma once

#include <cstdint>
#include <map>
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

struct SlotFindings {
    std::vector<SlotLine> lacking;  // by the file, in the order in which they are to be put back
    std::vector<Entry> damages;     // what does not fit, an entry DAMAGE each, without its place in the chain
};

// The lines of all slots, read once.
class Slots {
public:
    Slots(const std::vector<std::string>& slots, const Digest& digest);

    // last: the last line of the file. Lines up to it are compared with those of the file that came since its last
    // start, which `folder` has; older ones a start before has dealt with. To be asked once: the lines go with it.
    SlotFindings compare(const Head& last, const std::string& folder);

private:
    using Candidates = std::vector<SlotLine>;  // of one number, which a commit that was told as failed may share
    using Lines = std::map<std::uint64_t, Candidates>;

    void add(std::string text, const Digest& digest);
    void damage(const std::string& why, const Entry* entry = nullptr);
    void tellStored(const SlotLine& line);
    void compareWithFile(const Head& last, const std::string& folder);
    SlotLine& choose(Candidates& candidates, Lines::iterator next);
    void connect(const Head& before, const SlotLine& line);

    Lines mLines;
    std::uint64_t mUnsound = 0;
    SlotFindings mFindings;
};

// An entry of the service itself that says what was found to be damaged.
Entry damageEntry(const std::string& why);

}  // namespace sd::trail
