// What somebody else said who keeps or seals the key of a slot: the machine, or the login keyring.
#pragma once

#include <string>

#include "platform/sdsecurity/key_ring.h"

namespace sd::security {

struct SlotAnswer {
    enum class Outcome {
        Done,
        NotNow,   // nobody answers, or it is locked: to be asked again later
        Refused,  // who answers can't: it is for another machine or user, or it is gone or changed
    } outcome = Outcome::NotNow;
    SecretBytes key;     // kKeySize, of an opening that is done
    std::string sealed;  // of a sealing that is done: at most kMaxSealedSlot printable ASCII characters without a blank
    std::string reason;  // of one that is not, for a person: no key material
};

constexpr std::size_t kMaxSealedSlot = 8UL * 1024;

}  // namespace sd::security
