// The dispatcher's part about the slots of the key ring.
#include <cstdint>
#include <string>

#include "src/sdconfig_interface.h"
#include "src/sdconfig_interface_call.h"
#include "src/sdconfig_protocol.h"
#include "src/sdconfig_slot_keeper.h"

namespace sd {

namespace {

std::string slotText(int kind) {
    return std::string("slot ") + SlotKeeper::nameOf(kind);
}

std::string slotText(SDSecurity::SlotKind kind) {
    return slotText(static_cast<int>(kind));
}

}  // namespace

SlotKeeper& SDConfigInterface::slots() {
    if (!mSlots) mSlots = std::make_unique<SlotKeeper>();
    return *mSlots;
}

// Answers the call with an outcome and a reason, from whatever thread. slot: its kind, or what else it is about.
std::function<void(int, const std::string&)> SDConfigInterface::slotAnswer(const Call& call, const std::string& slot) {
    return [this, slot, entry = entryOf(call), reply = makeReply(call)](int outcome, const std::string& reason) {
        noteRing(entry, outcome == static_cast<int>(SDSecurity::SlotOutcome::Done),
                 reason.empty() ? slot : slot + ": " + reason);
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
                    slotAnswer(call, slotText(call.request->getInt(0))));
    return true;
}

bool SDConfigInterface::unprotectRing(Call& call) {
    const int kind = call.request->getInt(0);
    if (kind == protocol::kAllSlots)
        slots().unprotectAll(slotAnswer(call, "all slots"));
    else
        slots().unprotect(kind, {call.request->getString(1), call.request->getString(2)},
                          slotAnswer(call, slotText(kind)));
    return true;
}

bool SDConfigInterface::unlockRing(Call& call) {
    slots().unlock(call.request->getString(0), slotAnswer(call, slotText(SDSecurity::SlotKind::Passphrase)));
    return true;
}

bool SDConfigInterface::recoverRing(Call& call) {
    slots().recover(call.request->getString(0), slotAnswer(call, slotText(SDSecurity::SlotKind::Recovery)));
    return true;
}

}  // namespace sd
