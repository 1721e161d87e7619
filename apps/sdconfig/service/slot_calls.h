// The calls about the slots of the service's key ring.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "apps/sdconfig/terminal/messages.h"
#include "apps/sdconfig/terminal/output.h"
#include "platform/sdsecurity/sdsecurity.h"

namespace cli {

class Service;

using SlotKind = sd::SDSecurity::SlotKind;

const char* nameOf(SlotKind kind);  // as it is typed
std::optional<SlotKind> slotKindOf(const std::string& name);

// What is to be told of a change of slots that was not done; kDone gives none.
Problem problemOf(sd::SDSecurity::SlotOutcome outcome, const std::string& reason);

// A key ring and its slots, as the service or this process sees it.
struct SlottedRing {
    sd::SDSecurity::KeyRingStatus status;
    std::vector<sd::SDSecurity::SlotInfo> slots;  // none of a plain ring

    bool isWrapped() const { return !slots.empty(); }
    bool isLocked() const { return status.state == sd::SDSecurity::KeyRingState::Locked; }
    bool has(SlotKind kind) const;
};

std::string namesOf(const SlottedRing& ring);  // of its slots, for a line
Object slotsObject(const SlottedRing& ring);   // an array

// What a locked ring waits for, for a line, and what opens it.
std::string waitsFor(const SlottedRing& ring);
std::string howToOpen(const SlottedRing& ring);

// What the service knows of its ring. Nothing, without a word, where it is of an earlier version or its security layer
// has no slots.
std::optional<SlottedRing> knownRing(const Service& service);

// What became of a call: it was done; or problem: the service refused it; or exitCode: it gave no answer, as was told.
struct SlotAnswer {
    int exitCode = kDone;
    Problem problem;
    std::string reason;      // where it was done, what else is to be known, or ""
    bool mayBeDone = false;  // of one that was not: it can't be told

    explicit operator bool() const { return exitCode == kDone && !problem; }
};

// With the slots tried, by those who keep their keys, where that is asked for.
enum class Look { Known, Tried };
struct SlottedRingAnswer : SlotAnswer {
    SlottedRing ring{{sd::SDSecurity::KeyRingState::Absent, ""}, {}};
};
SlottedRingAnswer askForRing(const Service& service, Look look);

// Keys: as the security layer makes them of what was typed, "" where none is needed.
SlotAnswer protect(const Service& service, SlotKind kind, const sd::SDSecurity::SlotKeys& keys);
SlotAnswer unprotect(const Service& service, SlotKind kind, const sd::SDSecurity::SlotKeys& keys);
SlotAnswer unprotectAll(const Service& service);
SlotAnswer unlock(const Service& service, const std::string& key);
SlotAnswer recover(const Service& service, const std::string& key);

// The answer told as refused where it was. Returns the exit code.
int refused(const Request& request, const SlotAnswer& answer);

}  // namespace cli
