// key protect, key unprotect: slots of the key ring that are made and removed.
#include "apps/sdconfig/data_commands/data_commands.h"
#include "apps/sdconfig/reading/data_access.h"
#include "apps/sdconfig/service/service.h"
#include "apps/sdconfig/service/slot_calls.h"
#include "apps/sdconfig/slots/typed_keys.h"
#include "apps/sdconfig/terminal/confirmation.h"
#include "apps/sdconfig/terminal/messages.h"
#include "apps/sdconfig/terminal/output.h"

namespace cli {

namespace {

using Outcome = sd::SDSecurity::SlotOutcome;

// What goes along with a change.
struct Needs {
    bool newCode = false;
    bool newPassphrase = false;
    bool passphrase = false;
};

Needs needsToProtect(const SlottedRing& ring, SlotKind kind) {
    const bool replaces = ring.has(kind);
    switch (kind) {
        case SlotKind::Recovery:
            return {true, false, ring.has(SlotKind::Passphrase)};
        case SlotKind::Passphrase:
            return {!ring.isWrapped() || replaces, true, false};
        default:
            return {!ring.isWrapped(), false, false};
    }
}

Needs needsToUnprotect(const SlottedRing& ring, SlotKind kind) {
    return {true, false, kind != SlotKind::Passphrase && ring.has(SlotKind::Passphrase)};
}

// Why the change can't be, as far as that shows before anything is typed.
Outcome outcomeFor(const SlottedRing& ring, SlotKind kind, bool removes) {
    using State = sd::SDSecurity::KeyRingState;
    if (ring.status.state == State::Absent) return Outcome::NoRing;
    if (ring.status.state == State::Broken) return Outcome::RingUnusable;
    if (ring.isLocked()) return Outcome::Locked;
    if (!ring.isWrapped()) return removes || kind == SlotKind::Recovery ? Outcome::NotWrapped : Outcome::Done;
    if (!removes) return Outcome::Done;
    if (!ring.has(kind)) return Outcome::NoSuchSlot;
    return ring.slots.size() > 2 ? Outcome::Done : Outcome::LastSlot;
}

// Names the folder to the security layer, for the passphrase that stands. Returns the exit code, once it is told.
int openFolder(const Request& request, const Service& service) {
    const DataAccess access = accessData(request, service);
    if (access.exitCode || access.reader) return access.exitCode;
    return dataUnreadable(request, problemOfData(access, kFolderUntold));
}

int typeKeys(const Request& request, const Service& service, const Needs& needs, TypedKeys& keys) {
    if (needs.newCode && !canConfirm(request)) return notTypable(request);
    if (needs.passphrase)
        if (const int code = openFolder(request, service)) return code;
    Problem problem;
    if (needs.newPassphrase) problem = keys.makePassphrase();
    if (!problem && needs.passphrase) problem = keys.takePassphrase();
    if (!problem && needs.newCode) problem = keys.makeCode(request.yes);
    return problem ? keyRefused(request, problem) : kDone;
}

Object changeObject(const Request& request, const std::string& code) {
    Object object{{"slot", request.key}, {"recovery_code", nullptr}};
    if (!code.empty()) object["recovery_code"] = code;
    return object;
}

std::string codeText(const std::string& code) {
    return code.empty() ? "" : "recovery code: " + code + "\n";
}

int tellDone(const Request& request, const std::string& text, const std::string& code, const std::string& reason) {
    Object object = changeObject(request, code);
    object["done"] = true;
    const int printed = print(request, text + codeText(code), object);
    if (printed && !code.empty()) noteCodeNotPrinted();
    if (!reason.empty()) note(reason);
    return printed;
}

// A code that nobody has seen yet may be the only one that opens the ring, where the change may have been made.
int tellUndone(const Request& request, const SlotAnswer& answer, const std::string& code) {
    if (answer.mayBeDone && !code.empty()) {
        Object object = changeObject(request, code);
        object["done"] = nullptr;
        print(request, codeText(code), object);
        noteCodeInDoubt();
    }
    return refused(request, answer);
}

// Asks the service for its ring, and for what goes along. Returns the exit code.
int prepare(const Request& request, Service& service, bool removes, SlottedRing& ring, TypedKeys& keys) {
    const SlotKind kind = *slotKindOf(request.key);
    if (const int code = service.require()) return code;
    SlottedRingAnswer answer = askForRing(service, Look::Known);
    if (!answer) return refused(request, answer);
    ring = std::move(answer.ring);
    if (const Problem problem = problemOf(outcomeFor(ring, kind, removes), "")) return keyRefused(request, problem);
    return typeKeys(request, service, removes ? needsToUnprotect(ring, kind) : needsToProtect(ring, kind), keys);
}

int unprotectWhole(const Request& request, Service& service) {
    if (!canConfirm(request)) return notAskable(request, "the slots of the key ring");
    if (const int code = service.require()) return code;
    if (!confirmed(request, "Make the key ring a plain one, so that a copy of the folder opens everything?"))
        return notConfirmed(request);
    const SlotAnswer answer = unprotectAll(service);
    if (!answer) return refused(request, answer);
    return tellDone(request, "the key ring is plain\n", "", answer.reason);
}

}  // namespace

int protectRing(const Request& request, Service& service) {
    SlottedRing ring{{sd::SDSecurity::KeyRingState::Absent, ""}, {}};
    TypedKeys keys;
    if (const int code = prepare(request, service, false, ring, keys)) return code;
    const SlotAnswer answer = protect(service, *slotKindOf(request.key), keys.slotKeys());
    if (!answer) return tellUndone(request, answer, keys.code());
    const int printed =
        tellDone(request, "the key ring has a new slot " + request.key + "\n", keys.code(), answer.reason);
    if (!ring.isWrapped()) noteEarlierCopies();
    return printed;
}

int unprotectRing(const Request& request, Service& service) {
    if (request.key == "all") return unprotectWhole(request, service);
    SlottedRing ring{{sd::SDSecurity::KeyRingState::Absent, ""}, {}};
    TypedKeys keys;
    if (const int code = prepare(request, service, true, ring, keys)) return code;
    const SlotAnswer answer = unprotect(service, *slotKindOf(request.key), keys.slotKeys());
    if (!answer) return tellUndone(request, answer, keys.code());
    return tellDone(request, "the key ring has no slot " + request.key + " any more\n", keys.code(), answer.reason);
}

}  // namespace cli
