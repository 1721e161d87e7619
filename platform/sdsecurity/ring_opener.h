// Opens wrapped rings without asking anybody who types.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "platform/sdsecurity/sdsecurity.h"
#include "platform/sdsecurity/slot_keepers.h"
#include "platform/sdsecurity/wrapped_ring.h"

namespace sd::security {

// Whether what needs a ring waits while it is being opened.
enum class Wait { No, Yes };

// Keeps the master key of its user's ring. Without one that fits it tries, for each set of slots that it meets, what is
// at hand: a passphrase that the system handed over ($CREDENTIALS_DIRECTORY/sdsecurity.passphrase), the machine, and
// the login keyring. That may take seconds and is done by a thread of its own. A machine that does not answer is asked
// again later; the keyring tells by itself. Guarded by its user's mutex.
class RingOpener {
public:
    // Forgets the master key, and what was tried.
    void reset();

    // For a process that stays: from now on a ring is opened, too, when the keyring is unlocked.
    void watchKeyring() { mWatchesKeyring = true; }
    bool watchesKeyring() const { return mWatchesKeyring; }

    struct Opened {
        SDSecurity::KeyRingState state;  // Usable, Locked or Broken
        SecretBytes text;
        std::string reason;
        SecretBytes master;
    };
    Opened open(const WrappedRing& ring, Wait wait);

    // What is known of a slot of the ring, without asking anybody.
    SDSecurity::SlotInfo known(const WrappedRing& ring, const Slot& slot) const;

    // Where its user takes the ring: it need not be the one that stood there before.
    void keep(const WrappedRing& ring, const SecretBytes& master);
    const SecretBytes& master() const { return mMaster; }

    SlotKeepers& keepers() { return mKeepers; }
    const SlotKeepers& keepers() const { return mKeepers; }

private:
    class Attempt;
    void tryWhatIsAtHand(const WrappedRing& ring);

    SlotKeepers mKeepers;
    SecretBytes mMaster;                 // empty without one
    std::optional<WrappedRing> mOpened;  // by it: the ring that was kept last
    std::shared_ptr<Attempt> mAttempt;
    bool mWatchesKeyring = false;
};

}  // namespace sd::security
