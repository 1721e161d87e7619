// Counts the seals of a key: random nonces are good for 2^32 of them, then two may be the same.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "platform/sdsecurity/key_ring.h"
#include "platform/sdsecurity/sdsecurity.h"

namespace sd::security {

// Seals are reserved in blocks from a file beside the ring, "sdsecurity.count", that all processes share; so a seal
// costs a subtraction. What a process has reserved and not used when it ends is lost, which does no harm: the first
// block is small. A count that can't be read or stored stops no seal: this process's own seals are counted then, and
// added once the file can be written. The block that a child takes over at a fork counts once for both, far from the
// limit that the warning keeps. Guarded by its user's mutex.
class SealCounter {
public:
    // Begins anew, with the file in `folder`; "" counts in memory alone.
    void reset(const std::string& folder);

    // Whether take() may be called for `id` without reserving first.
    bool has(const KeyId& id) const { return mLeft > 0 && mId == id; }
    // False, with an error logged, where the key is used up. Logs a warning from half of that on.
    bool reserve(const KeyId& id);
    void take() { --mLeft; }

private:
    void store(const KeyId& id);

    std::string mFolder;
    KeyId mId{};
    std::uint64_t mLeft = 0;
    std::uint64_t mBlock = 0;
    std::uint64_t mStored = 0;  // of all processes, as the file had it last
    std::uint64_t mOwed = 0;    // what this one has taken beyond that
    bool mStoreFailed = false;
};

// How often each key has sealed, as the file in `folder` has it; by the key's id in hexadecimal.
using SealCounts = std::map<std::string, std::uint64_t, std::less<>>;
SealCounts storedCounts(const std::string& folder);

// What the file in `folder` says of a key.
SDSecurity::KeyUse storedUse(const std::string& folder, const KeyId& id);

}  // namespace sd::security
