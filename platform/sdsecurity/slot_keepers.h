// Who keeps or seals the keys of slots that nobody types: the machine, and the login keyring.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "platform/sdsecurity/host_slot.h"
#include "platform/sdsecurity/keyring_slot.h"
#include "platform/sdsecurity/slot_answer.h"
#include "platform/sdsecurity/wrapped_ring.h"

namespace sd::security {

// Copies ask by the same program. Any thread asks; the paths are set before.
class SlotKeepers {
public:
    // "" stands for what the machine has.
    void setSealSocket(const std::string& path);
    void setKeyringProgram(const std::string& path);

    // Has the key of such a slot sealed, or kept; open asks for it. kind, slot: none that is typed. At most 5 s each,
    // and 10 s of the machine where systemd seals itself.
    SlotAnswer seal(SlotKind kind, const SecretBytes& key) const;
    SlotAnswer open(const Slot& slot) const;

    // The slot stands in no file any more.
    void forget(const Slot& slot) const;

    // Tells once, from a thread of its own, when the keyring has an answer about its slot. onFound: holds no copy of
    // this object.
    void watch(const Slot& slot, std::function<void(SlotAnswer)> onFound) const;

private:
    HostSealers mSealers;
    std::shared_ptr<KeyringHelper> mKeyring = std::make_shared<KeyringHelper>(keyringProgram());
};

}  // namespace sd::security
