#include "apps/sdconfig/service/slot_calls.h"

#include <algorithm>
#include <array>
#include <charconv>

#include "apps/common/time_text.h"
#include "apps/sdconfig/service/service.h"
#include "platform/sdbus/sdbus.h"
#include "src/sdconfig_protocol.h"

namespace cli {

namespace {

using sd::SDSecurity;
using sd::protocol::SlotsTold;
using Outcome = SDSecurity::SlotOutcome;
using RingState = SDSecurity::KeyRingState;
using SlotState = SDSecurity::SlotState;

constexpr std::array<const char*, 4> kNames{"recovery", "passphrase", "host", "keyring"};
constexpr int kRingStates = 4;

std::string withReason(const std::string& what, const std::string& reason) {
    return reason.empty() ? what : what + ": " + reason;
}

std::string orElse(const std::string& reason, const char* what) {
    return reason.empty() ? what : reason;
}

// Of what the service itself says.
Problem problemOfCode(int outcome, const std::string& reason) {
    if (outcome == static_cast<int>(SlotsTold::LayerWithout))
        return {"the service seals with a security layer that can't do this", "use that layer's own means"};
    if (outcome == static_cast<int>(SlotsTold::Busy))
        return {"the service is still at another call about slots", "repeat it in some seconds"};
    return cli::problemOf(static_cast<Outcome>(outcome), reason);
}

const char* stateName(SlotState state) {
    switch (state) {
        case SlotState::Opens:
            return "opens";
        case SlotState::Typed:
            return "typed";
        case SlotState::NotNow:
            return "waits";
        case SlotState::Refused:
            return "refused";
        default:
            return "not asked";
    }
}

std::optional<SlottedRing> readRing(SDBusMessage& answer) {
    constexpr int kFirst = 4;
    constexpr int kEach = 4;
    const int state = answer.getInt(1);
    const int count = answer.getInt(kFirst - 1);
    if (state < 0 || state >= kRingStates || count < 0 || count > static_cast<int>(kNames.size())) return std::nullopt;
    SlottedRing ring{{static_cast<RingState>(state), answer.getString(2)}, {}};
    for (int at = kFirst; at < kFirst + kEach * count; at += kEach) {
        const int kind = answer.getInt(at);
        if (kind < 0 || kind >= static_cast<int>(kNames.size())) return std::nullopt;
        SDSecurity::SlotInfo slot{static_cast<SlotKind>(kind), 0, static_cast<SlotState>(answer.getInt(at + 2)),
                                  answer.getString(at + 3)};
        const std::string made = answer.getString(at + 1);
        std::from_chars(made.data(), made.data() + made.size(), slot.made);
        ring.slots.push_back(std::move(slot));
    }
    return ring;
}

SlotAnswer change(const Service& service, const char* method, const std::function<void(SDBusMessage&)>& arguments) {
    SlotAnswer result;
    const auto answer = service.ask(method, arguments, "ys", result.exitCode, sd::protocol::kSlotsTimeoutMs);
    result.mayBeDone = !answer;
    if (!answer) return result;
    const int outcome = answer->getInt(0);
    result.reason = answer->getString(1);
    result.problem = problemOfCode(outcome, result.reason);
    // The new file stands, but may be gone after a power cut, where its folder could not be synced.
    result.mayBeDone = outcome == static_cast<int>(Outcome::NotStored);
    return result;
}

std::function<void(SDBusMessage&)> ofSlot(int kind, const SDSecurity::SlotKeys& keys) {
    return [kind, &keys](SDBusMessage& call) {
        call.appendInt8(static_cast<std::int8_t>(kind));
        call.appendString(keys.recovery);
        call.appendString(keys.passphrase);
    };
}

}  // namespace

const char* nameOf(SlotKind kind) {
    return kNames[static_cast<std::size_t>(kind)];
}

std::optional<SlotKind> slotKindOf(const std::string& name) {
    const auto* const found = std::find(kNames.begin(), kNames.end(), name);
    if (found == kNames.end()) return std::nullopt;
    return static_cast<SlotKind>(found - kNames.begin());
}

Problem problemOf(Outcome outcome, const std::string& reason) {
    switch (outcome) {
        case Outcome::Done:
            return {};
        case Outcome::NoRing:
            return {"there is no key ring yet", "store a secure value or a policy: the first one makes it"};
        case Outcome::RingUnusable:
            return {withReason("the key ring can't be used", reason), "see what is wrong with: " + typed("doctor")};
        case Outcome::NotWrapped:
            return {"the key ring is plain, and has no slots", "give it one with: " + typed("key protect host")};
        case Outcome::Locked:
            return {"the key ring is locked",
                    "open it with: " + typed("key unlock") + ", or with the recovery code: " + typed("key recover")};
        case Outcome::NoSuchSlot:
            return {orElse(reason, "the key ring has no such slot"),
                    "see those that it has with: " + typed("key slots")};
        case Outcome::LastSlot:
            return {orElse(reason, "it is the last slot beside the recovery code"),
                    "make another one first, or take the wrap off with: " + typed("key unprotect all")};
        case Outcome::Mistyped:
            return {withReason("what was typed is not whole", reason),
                    "repeat it; in a recovery code blanks, dashes and small letters make no difference"};
        case Outcome::WrongKey:
            return {orElse(reason, "what was typed opens nothing"), "repeat it with the right one"};
        case Outcome::NeedsRecovery:
        case Outcome::NeedsPassphrase:
            return {withReason("the slots were changed meanwhile", reason), "repeat it"};
        case Outcome::NotNow:
            return {reason, "nothing was changed; repeat it once that answers"};
        case Outcome::Refused:
            return {reason, ""};
        case Outcome::NotOurs:
            return {"the key ring was handed over to the service, which can't write it",
                    "change it where it comes from"};
        case Outcome::NotStored:
            return {
                withReason("the key ring could not be stored", reason),
                "see which slots it has with: " + typed("key slots") + ", and what is wrong with: " + typed("doctor")};
        case Outcome::Failed:
            return {withReason("memory or the cipher failed", reason), "repeat it"};
    }
    return {"the service answers with something that this version doesn't know", "install both from one package"};
}

bool SlottedRing::has(SlotKind kind) const {
    return std::any_of(slots.begin(), slots.end(), [&](const auto& slot) { return slot.kind == kind; });
}

std::string namesOf(const SlottedRing& ring) {
    std::string names;
    for (const auto& slot : ring.slots) names += (names.empty() ? "" : ", ") + std::string(nameOf(slot.kind));
    return names;
}

Object slotsObject(const SlottedRing& ring) {
    Object all = Object::array();
    for (const auto& slot : ring.slots) {
        Object one{{"slot", nameOf(slot.kind)},
                   {"made", apps::timeText(slot.made)},
                   {"state", stateName(slot.state)},
                   {"reason", nullptr}};
        if (!slot.reason.empty()) one["reason"] = slot.reason;
        all.push_back(std::move(one));
    }
    return all;
}

std::string waitsFor(const SlottedRing& ring) {
    std::string text;
    const auto add = [&](const std::string& what) { text += (text.empty() ? "" : "; ") + what; };
    for (const auto& slot : ring.slots) {
        const bool isRefused = slot.state == SlotState::Refused;
        if (slot.kind == SlotKind::Passphrase) add("waits for the passphrase");
        if (slot.kind == SlotKind::Host && !isRefused) add(withReason("waits for the machine's seal", slot.reason));
        if (slot.kind == SlotKind::Keyring && !isRefused) add(withReason("waits for the login keyring", slot.reason));
        if (isRefused) add(withReason(nameOf(slot.kind), slot.reason));
    }
    return text;
}

std::string howToOpen(const SlottedRing& ring) {
    const std::string byCode = typed("key recover");
    return ring.has(SlotKind::Passphrase) ? typed("key unlock") + ", or with the recovery code: " + byCode : byCode;
}

std::optional<SlottedRing> knownRing(const Service& service) {
    const auto answer = service.tryToAskKnown(
        sd::protocol::kKeySlots, [](SDBusMessage& call) { call.appendBool(false); }, "yysy");
    if (!answer || answer->getInt(0) != static_cast<int>(Outcome::Done)) return std::nullopt;
    return readRing(*answer);
}

SlottedRingAnswer askForRing(const Service& service, Look look) {
    SlottedRingAnswer result;
    const auto answer = service.ask(
        sd::protocol::kKeySlots, [&](SDBusMessage& call) { call.appendBool(look == Look::Tried); }, "yysy",
        result.exitCode, sd::protocol::kSlotsTimeoutMs);
    if (!answer) return result;
    result.problem = problemOfCode(answer->getInt(0), "");
    std::optional<SlottedRing> ring = readRing(*answer);
    if (!ring) result.problem = problemOf(Outcome{-1}, "");
    if (result) result.ring = std::move(*ring);
    return result;
}

SlotAnswer protect(const Service& service, SlotKind kind, const SDSecurity::SlotKeys& keys) {
    return change(service, sd::protocol::kKeyProtect, ofSlot(static_cast<int>(kind), keys));
}

SlotAnswer unprotect(const Service& service, SlotKind kind, const SDSecurity::SlotKeys& keys) {
    return change(service, sd::protocol::kKeyUnprotect, ofSlot(static_cast<int>(kind), keys));
}

SlotAnswer unprotectAll(const Service& service) {
    return change(service, sd::protocol::kKeyUnprotect, ofSlot(sd::protocol::kAllSlots, {}));
}

SlotAnswer unlock(const Service& service, const std::string& key) {
    return change(service, sd::protocol::kKeyUnlock, [&](SDBusMessage& call) { call.appendString(key); });
}

SlotAnswer recover(const Service& service, const std::string& key) {
    return change(service, sd::protocol::kKeyRecover, [&](SDBusMessage& call) { call.appendString(key); });
}

int refused(const Request& request, const SlotAnswer& answer) {
    return answer.exitCode ? answer.exitCode : keyRefused(request, answer.problem);
}

}  // namespace cli
