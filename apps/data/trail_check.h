// The trail of a data folder, looked at as a whole, whether the service runs or not.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "apps/data/finding.h"
#include "trail/verify.h"

namespace apps {

// Digests under the keys of the ring that the security layer was told; none where that can't be used now.
sd::trail::Digest ringDigest();

// The names of its files, there or not, the oldest first.
std::vector<std::string> trailFiles(const std::string& folder);

struct TrailCheck {
    sd::trail::Verdict verdict;
    std::optional<Finding> finding;  // of the first bad line
};

// digest: as ringDigest() has it. head: one that was noted, or none.
TrailCheck checkTrail(const std::string& folder, const sd::trail::Digest& digest,
                      const std::optional<sd::trail::Head>& head = std::nullopt);

}  // namespace apps
