#include "src/sdconfig_slot_keeper.h"

#include <chrono>
#include <system_error>
#include <utility>

#include "platform/velmarlog/log_line.h"
#include "src/sdconfig_protocol.h"

namespace sd {

namespace {

using SlotKind = SDSecurity::SlotKind;
using SlotKeys = SDSecurity::SlotKeys;
using SlotOutcome = SDSecurity::SlotOutcome;
using SlotResult = SDSecurity::SlotResult;
using protocol::SlotsTold;

constexpr char kTag[] = "sdconfig";
constexpr char kSource[] = "src/sdconfig_slot_keeper";

// One operation stands for all that a host's own layer may lack.
bool hasLayerSlots() {
    return &SDSecurity::MakeRecoveryCode != nullptr;
}

SDSecurity& layer() {
    return *SDSecurity::GetInstance();
}

bool isKind(int kind) {
    return kind >= static_cast<int>(SlotKind::Recovery) && kind <= static_cast<int>(SlotKind::Keyring);
}

// done: what is so where it was done.
void logChange(const std::string& done, const SlotResult& result) {
    const std::string reason = result.reason.empty() ? "" : ": " + result.reason;
    if (result.outcome == SlotOutcome::Done)
        LOG(6, AT "%s%s", HERE, done.c_str(), reason.c_str());
    else
        LOG(7, AT "not done, that %s%s", HERE, done.c_str(), reason.c_str());
}

SlotResult noSlot(int kind) {
    return {SlotOutcome::NoSuchSlot, std::string("there is no slot ") + SlotKeeper::nameOf(kind)};
}

int codeOf(SlotOutcome outcome) {
    return static_cast<int>(outcome);
}

SlotKeeper::Ring ringUntold(int outcome) {
    SlotKeeper::Ring ring;
    ring.outcome = outcome;
    return ring;
}

}  // namespace

const char* SlotKeeper::nameOf(int kind) {
    static constexpr const char* kNames[] = {"recovery", "passphrase", "host", "keyring"};
    return isKind(kind) ? kNames[kind] : "of no known kind";
}

SlotKeeper::Ring SlotKeeper::known() {
    if (!hasLayerSlots()) return ringUntold(static_cast<int>(SlotsTold::LayerWithout));
    SDSecurity::KeyRingStatus status = layer().OpenKeyRingAhead();
    return {codeOf(SlotOutcome::Done), std::move(status), layer().KnownSlots()};
}

int SlotKeeper::begin(Work work) {
    if (!hasLayerSlots()) return static_cast<int>(SlotsTold::LayerWithout);
    if (mWork.valid() && mWork.wait_for(std::chrono::seconds(0)) != std::future_status::ready)
        return static_cast<int>(SlotsTold::Busy);
    try {
        mWork = std::async(std::launch::async, std::move(work));
    } catch (const std::system_error& error) {
        LOG(7, AT "no thread: %s", HERE, error.what());
        return codeOf(SlotOutcome::Failed);
    }
    return codeOf(SlotOutcome::Done);
}

void SlotKeeper::look(TellRing tell) {
    const int begun = begin([tell] {
        std::vector<SDSecurity::SlotInfo> slots = layer().Slots();
        tell({codeOf(SlotOutcome::Done), layer().OpenKeyRingAhead(), std::move(slots)});
    });
    if (begun != codeOf(SlotOutcome::Done)) tell(ringUntold(begun));
}

// done: what is so then, for the log.
void SlotKeeper::beginChange(std::string done, Change change, Tell tell) {
    const int begun = begin([done, change = std::move(change), tell] {
        const SlotResult result = change();
        logChange(done, result);
        tell(codeOf(result.outcome), result.reason);
    });
    if (begun != codeOf(SlotOutcome::Done)) tell(begun, "");
}

void SlotKeeper::protect(int kind, SlotKeys keys, Tell tell) {
    beginChange(
        std::string("the key ring has a new slot ") + nameOf(kind),
        [kind, keys = std::move(keys)] {
            return isKind(kind) ? layer().Protect(static_cast<SlotKind>(kind), keys) : noSlot(kind);
        },
        std::move(tell));
}

void SlotKeeper::unprotect(int kind, SlotKeys keys, Tell tell) {
    beginChange(
        std::string("the key ring has no slot ") + nameOf(kind) + " any more, and a new recovery code",
        [kind, keys = std::move(keys)] {
            return isKind(kind) ? layer().Unprotect(static_cast<SlotKind>(kind), keys) : noSlot(kind);
        },
        std::move(tell));
}

void SlotKeeper::unprotectAll(Tell tell) {
    beginChange(
        "the key ring is plain again", [] { return layer().UnprotectAll(); }, std::move(tell));
}

void SlotKeeper::unlock(std::string key, Tell tell) {
    beginChange(
        "the key ring was opened by its passphrase", [key = std::move(key)] { return layer().Unlock(key); },
        std::move(tell));
}

void SlotKeeper::recover(std::string key, Tell tell) {
    beginChange(
        "the key ring was opened by its recovery code", [key = std::move(key)] { return layer().Recover(key); },
        std::move(tell));
}

}  // namespace sd
