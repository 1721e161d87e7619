// The dispatcher's part about the slots of the key ring.
#include <cstdint>
#include <string>

#include "src/sdconfig_interface.h"
#include "src/sdconfig_interface_call.h"
#include "src/sdconfig_protocol.h"
#include "src/sdconfig_slot_keeper.h"

namespace sd {

SlotKeeper& SDConfigInterface::slots() {
    if (!mSlots) mSlots = std::make_unique<SlotKeeper>();
    return *mSlots;
}

// Answers the call with an outcome and a reason, from whatever thread.
std::function<void(int, const std::string&)> SDConfigInterface::slotAnswer(const Call& call) {
    return [this, reply = makeReply(call)](int outcome, const std::string& reason) {
        reply->appendInt8(static_cast<int8_t>(outcome));
        reply->appendString(reason);
        sendMessage(reply);
    };
}

bool SDConfigInterface::listSlots(Call& call) {
    const auto answer = [this, reply = makeReply(call)](const SlotKeeper::Ring& ring) {
        reply->appendInt8(static_cast<int8_t>(ring.outcome));
        reply->appendInt8(static_cast<int8_t>(ring.status.state));
        reply->appendString(ring.status.detail);
        reply->appendInt8(static_cast<int8_t>(ring.slots.size()));
        for (const SDSecurity::SlotInfo& slot : ring.slots) {
            reply->appendInt8(static_cast<int8_t>(slot.kind));
            reply->appendString(std::to_string(slot.made));
            reply->appendInt8(static_cast<int8_t>(slot.state));
            reply->appendString(slot.reason);
        }
        sendMessage(reply);
    };
    call.request->getBool(0) ? slots().look(answer) : answer(SlotKeeper::known());
    return true;
}

bool SDConfigInterface::protectRing(Call& call) {
    slots().protect(call.request->getInt(0), {call.request->getString(1), call.request->getString(2)},
                    slotAnswer(call));
    return true;
}

bool SDConfigInterface::unprotectRing(Call& call) {
    const int kind = call.request->getInt(0);
    if (kind == protocol::kAllSlots)
        slots().unprotectAll(slotAnswer(call));
    else
        slots().unprotect(kind, {call.request->getString(1), call.request->getString(2)}, slotAnswer(call));
    return true;
}

bool SDConfigInterface::unlockRing(Call& call) {
    slots().unlock(call.request->getString(0), slotAnswer(call));
    return true;
}

bool SDConfigInterface::recoverRing(Call& call) {
    slots().recover(call.request->getString(0), slotAnswer(call));
    return true;
}

}  // namespace sd
