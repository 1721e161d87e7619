#include "apps/sdconfig/policy/property_clash.h"

#include "libsdconfig/sdconfig.h"

namespace cli {

bool isOnlyProperty(const std::string& key, const Effective& now) {
    const bool mayBeLocal = now.origin == Origin::LocalOrPolicy;
    return !mayBeLocal && !sd::SDConfig::GetInstance()->GetProperty(key).empty();
}

}  // namespace cli
