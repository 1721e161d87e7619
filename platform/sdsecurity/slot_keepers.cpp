#include "platform/sdsecurity/slot_keepers.h"

#include <utility>

namespace sd::security {

void SlotKeepers::setSealSocket(const std::string& path) {
    mSealers = path.empty() ? HostSealers() : HostSealers(path);
}

void SlotKeepers::setKeyringProgram(const std::string& path) {
    mKeyring = std::make_shared<KeyringHelper>(path.empty() ? keyringProgram() : path);
}

SlotAnswer SlotKeepers::seal(SlotKind kind, const SecretBytes& key) const {
    return kind == SlotKind::Host ? sealByHost(key, mSealers) : mKeyring->store(key);
}

SlotAnswer SlotKeepers::open(const Slot& slot) const {
    return slot.kind == SlotKind::Host ? openByHost(slot.sealed, mSealers) : mKeyring->find(slot.sealed);
}

void SlotKeepers::forget(const Slot& slot) const {
    if (slot.kind == SlotKind::Keyring) (void)mKeyring->forget(slot.sealed);
}

void SlotKeepers::watch(const Slot& slot, std::function<void(SlotAnswer)> onFound) const {
    mKeyring->watch(slot.sealed, std::move(onFound));
}

}  // namespace sd::security
