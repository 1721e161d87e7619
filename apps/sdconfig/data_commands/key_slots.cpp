// key slots: what opens the key ring, and whether it does here.
#include "apps/sdconfig/data_commands/data_commands.h"
#include "apps/sdconfig/reading/data_access.h"
#include "apps/sdconfig/service/service.h"
#include "apps/sdconfig/service/slot_calls.h"
#include "apps/sdconfig/terminal/messages.h"
#include "apps/sdconfig/terminal/output.h"
#include "apps/sdconfig/terminal/table.h"

namespace cli {

namespace {

using sd::SDSecurity;

std::string textOf(const SlottedRing& ring) {
    if (!ring.isWrapped()) return "the key ring is plain: whoever has it opens everything\n";
    std::vector<Fields> lines;
    for (const Object& slot : slotsObject(ring))
        lines.push_back(
            {slot["slot"], slot["made"], slot["state"], slot["reason"].is_null() ? "-" : shownInLine(slot["reason"])});
    return table({"SLOT", "MADE", "STATE", "REASON"}, lines);
}

// As this process sees the ring, without a service. Returns the exit code.
int lookHere(const Request& request, const Service& service, SlottedRing& ring) {
    const DataAccess access = accessData(request, service);
    if (access.exitCode) return access.exitCode;
    if (!access.reader) return nothingToReadFrom(request, problemOfData(access, kFolderUntold));
    SDSecurity& layer = *SDSecurity::GetInstance();
    ring = {layer.OpenKeyRingAhead(), layer.Slots()};
    return kDone;
}

// As the service sees it.
int lookThere(const Request& request, Service& service, SlottedRing& ring) {
    if (const int code = service.require()) return code;
    if (const DataAccess access = accessData(request, service); access.exitCode) return access.exitCode;
    SlottedRingAnswer answer = askForRing(service, Look::Tried);
    if (!answer) return refused(request, answer);
    ring = std::move(answer.ring);
    return kDone;
}

}  // namespace

int listSlots(const Request& request, Service& service) {
    SlottedRing ring{{SDSecurity::KeyRingState::Absent, ""}, {}};
    const int looked = service.listening() ? lookThere(request, service, ring) : lookHere(request, service, ring);
    if (looked) return looked;
    if (ring.status.state == SDSecurity::KeyRingState::Absent) return noKeyYet(request);
    if (ring.status.state == SDSecurity::KeyRingState::Broken)
        return noRing(request, {"the key ring can't be used: " + ring.status.detail, ""});
    return print(request, textOf(ring),
                 {{"wrapped", ring.isWrapped()}, {"open", !ring.isLocked()}, {"slots", slotsObject(ring)}});
}

}  // namespace cli
