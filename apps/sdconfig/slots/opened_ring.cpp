#include "apps/sdconfig/slots/opened_ring.h"

#include <fcntl.h>
#include <unistd.h>

#include "apps/common/descriptor.h"
#include "apps/data/data_files.h"
#include "apps/sdconfig/service/slot_calls.h"
#include "apps/sdconfig/slots/typed_keys.h"

namespace cli {

namespace {

using sd::SDSecurity;

// The recovery code makes slots anew that don't open here, but of a ring that was handed over, which this is then.
void takeAsHandedOver(const std::string& folder) {
    const apps::Descriptor ring(::open((folder + "/" + apps::kRingFile).c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    if (ring) (void)SDSecurity::GetInstance()->SetKeyRingDescriptor(ring.get());
}

Problem openByTyping(const SlottedRing& ring) {
    SDSecurity& layer = *SDSecurity::GetInstance();
    const bool hasPassphrase = ring.has(SlotKind::Passphrase);
    TypedKeys keys;
    if (Problem problem = hasPassphrase ? keys.takePassphrase() : keys.takeCode()) return problem;
    const auto result =
        hasPassphrase ? layer.Unlock(keys.slotKeys().passphrase) : layer.Recover(keys.slotKeys().recovery);
    return problemOf(result.outcome, result.reason);
}

}  // namespace

Problem openRingOf(const std::string& folder) {
    using State = SDSecurity::KeyRingState;
    SDSecurity& layer = *SDSecurity::GetInstance();
    const SlottedRing ring{layer.CheckKeyRing(), layer.KnownSlots()};
    if (ring.status.state == State::Usable) return {};
    if (ring.status.state == State::Absent) return {ring.status.detail, "put the ring of the time back there"};
    if (!ring.isLocked()) return {"the key ring can't be used: " + ring.status.detail, "see: " + typed("check")};
    if (!::isatty(STDIN_FILENO))
        return {"the key ring is locked, " + waitsFor(ring),
                "repeat it at a terminal, where what opens it can be typed"};
    takeAsHandedOver(folder);
    return openByTyping(ring);
}

}  // namespace cli
