// key unlock, key recover: a locked key ring is opened by what a person knows.
#include <algorithm>
#include <cstdlib>

#include "apps/common/process.h"
#include "apps/sdconfig/data_commands/data_commands.h"
#include "apps/sdconfig/reading/data_access.h"
#include "apps/sdconfig/service/service.h"
#include "apps/sdconfig/service/slot_calls.h"
#include "apps/sdconfig/slots/typed_keys.h"
#include "apps/sdconfig/terminal/messages.h"
#include "apps/sdconfig/terminal/output.h"

namespace cli {

namespace {

using Outcome = sd::SDSecurity::SlotOutcome;

// Why no slot of that kind opens the ring, as far as that shows before anything is typed.
Outcome outcomeFor(const SlottedRing& ring, SlotKind kind) {
    using State = sd::SDSecurity::KeyRingState;
    if (ring.status.state == State::Absent) return Outcome::NoRing;
    if (ring.status.state == State::Broken) return Outcome::RingUnusable;
    if (!ring.isWrapped()) return Outcome::NotWrapped;
    return ring.has(kind) ? Outcome::Done : Outcome::NoSuchSlot;
}

// A ring that the system handed over to the service is read where the service reads it.
void takeCredentialsOf(const Service& service) {
    constexpr char kName[] = "CREDENTIALS_DIRECTORY";
    if (const auto folder = apps::variableOf(service.processId(), kName)) ::setenv(kName, folder->c_str(), 1);
}

// Whether this process, which stretches what is typed, reads the slots that the service has.
Problem problemOfReading(const SlottedRing& ring) {
    const auto read = sd::SDSecurity::GetInstance()->KnownSlots();
    const auto isSame = [](const auto& one, const auto& other) {
        return one.kind == other.kind && one.made == other.made;
    };
    if (std::equal(read.begin(), read.end(), ring.slots.begin(), ring.slots.end(), isSame)) return {};
    return {"the slots of the service's key ring can't be read here: " + ring.status.detail,
            "where a ring was handed over to the service: hand over one that opens there, or its passphrase with it, "
            "as sdsecurity.passphrase in $CREDENTIALS_DIRECTORY, and " +
                howToRestart()};
}

// Looks whether there is such a slot, and has the security layer read the ring where it is. Returns the exit code.
int prepare(const Request& request, Service& service, SlotKind kind, SlottedRing& ring) {
    if (const int code = service.require()) return code;
    SlottedRingAnswer answer = askForRing(service, Look::Known);
    if (!answer) return refused(request, answer);
    ring = std::move(answer.ring);
    if (const Problem problem = problemOf(outcomeFor(ring, kind), "")) return keyRefused(request, problem);
    takeCredentialsOf(service);
    const DataAccess access = accessData(request, service);
    if (access.exitCode) return access.exitCode;
    if (!access.reader) return dataUnreadable(request, problemOfData(access, kFolderUntold));
    const Problem problem = problemOfReading(ring);
    return problem ? keyRefused(request, problem) : kDone;
}

int tellOpen(const Request& request, const std::string& reason) {
    const int printed = print(request, "the key ring is open\n", {{"done", true}});
    if (!reason.empty()) note(reason);
    return printed;
}

}  // namespace

int unlockRing(const Request& request, Service& service) {
    SlottedRing ring{{sd::SDSecurity::KeyRingState::Absent, ""}, {}};
    if (const int code = prepare(request, service, SlotKind::Passphrase, ring)) return code;
    if (!ring.isLocked()) return tellOpen(request, "");
    TypedKeys keys;
    if (const Problem problem = keys.takePassphrase()) return keyRefused(request, problem);
    const SlotAnswer answer = unlock(service, keys.slotKeys().passphrase);
    return answer ? tellOpen(request, answer.reason) : refused(request, answer);
}

int recoverRing(const Request& request, Service& service) {
    SlottedRing ring{{sd::SDSecurity::KeyRingState::Absent, ""}, {}};
    if (const int code = prepare(request, service, SlotKind::Recovery, ring)) return code;
    TypedKeys keys;
    if (const Problem problem = keys.takeCode()) return keyRefused(request, problem);
    const SlotAnswer answer = recover(service, keys.slotKeys().recovery);
    return answer ? tellOpen(request, answer.reason) : refused(request, answer);
}

}  // namespace cli
