// The digests of the trail, as the security layer makes them under a key of the ring.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "base/letter_case.h"
#include "platform/sdsecurity/sdsecurity.h"

namespace sd {

// False with a host's own security layer that lacks what the trail needs.
inline bool isLayerDigesting() {
    return &SDSecurity::DigestUnderKey;  // it stands for all that such a layer may lack
}

// Of a key's effective value: equal ones of one key, in whatever letter case, have equal digests, those of different
// keys don't. "" where the ring's key is not at hand.
inline std::string valueDigest(const std::string& ringKey, const std::string& key, std::string_view value) {
    constexpr std::size_t kDigits = 32;
    const std::string name = folded(key);
    return SDSecurity::DigestUnderKey(ringKey, {"trail value", name, value}).substr(0, kDigits);
}

}  // namespace sd
