// What the service does about the slots of a wrapped key ring.
#pragma once

#include <functional>
#include <future>
#include <string>
#include <vector>

#include "platform/sdsecurity/sdsecurity.h"

namespace sd {

// To make a slot, to try one, takes seconds where the machine or the login keyring is slow to answer. So that no other
// call waits for it, it is done on a thread of its own, one at a time. As the stores, for the service's own thread.
class SlotKeeper {
public:
    // The ring and its slots. outcome: an SDSecurity::SlotOutcome, or one of protocol::SlotsTold.
    struct Ring {
        int outcome = 0;
        SDSecurity::KeyRingStatus status{SDSecurity::KeyRingState::Absent, ""};
        std::vector<SDSecurity::SlotInfo> slots{};
    };
    // As it is known, without asking anybody and without a wait.
    static Ring known();

    // A kind's name, whatever number it is.
    static const char* nameOf(int kind);

    // The next ones answer from a thread of their own, or at once where they can't begin.

    // Asks everybody who keeps a slot's key.
    using TellRing = std::function<void(const Ring& ring)>;
    void look(TellRing tell);

    // reason: for a person, or "".
    using Tell = std::function<void(int outcome, const std::string& reason)>;
    // kind: an SDSecurity::SlotKind, or any other number.
    void protect(int kind, SDSecurity::SlotKeys keys, Tell tell);
    void unprotect(int kind, SDSecurity::SlotKeys keys, Tell tell);
    void unprotectAll(Tell tell);
    void unlock(std::string key, Tell tell);
    void recover(std::string key, Tell tell);

private:
    // Nothing where it has begun, else why it can't.
    using Work = std::function<void()>;
    int begin(Work work);
    using Change = std::function<SDSecurity::SlotResult()>;
    void beginChange(std::string done, Change change, Tell tell);

    std::future<void> mWork;
};

}  // namespace sd
