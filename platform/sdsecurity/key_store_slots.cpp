// KeyStore's part that makes, changes and opens the slots of a wrapped ring.
#include <algorithm>
#include <ctime>
#include <iterator>
#include <utility>

#include "platform/sdsecurity/crypto.h"
#include "platform/sdsecurity/hex.h"
#include "platform/sdsecurity/key_store.h"
#include "platform/sdsecurity/log.h"
#include "platform/sdsecurity/recovery_code.h"
#include "platform/sdsecurity/ring_text.h"

namespace sd::security {

using KeyRingState = SDSecurity::KeyRingState;
using SlotOutcome = SDSecurity::SlotOutcome;
using SlotResult = SDSecurity::SlotResult;
using SlotState = SDSecurity::SlotState;

namespace {

constexpr char kSource[] = "platform/sdsecurity/key_store_slots";
constexpr char kAnotherKey[] = "the key that was kept for it does not open it";

const SlotResult kDone{SlotOutcome::Done, ""};
const SlotResult kNotWrapped{SlotOutcome::NotWrapped, "the key ring is a plain one"};

SlotResult noSlot(SlotKind kind) {
    return {SlotOutcome::NoSuchSlot, "the key ring has no slot " + std::string(nameOf(kind))};
}

// The key of a slot that is typed, and how it was stretched.
struct TypedKey {
    Stretching how;
    SecretBytes key = SecretBytes(kKeySize);
};

std::string lineOf(const TypedKey& typed) {
    std::string text;
    text.reserve(4 + 2 * (kSaltSize + kKeySize));  // one that grew would leave pieces of the key in memory
    text.append(std::to_string(typed.how.cost)).append(" ");
    appendHex(typed.how.salt, text);
    text += ' ';
    appendHex(typed.key, text);
    return text;
}

std::optional<TypedKey> typedKeyOf(std::string_view text) {
    TypedKey typed;
    const bool isKey = readNumber(takeField(text), typed.how.cost) && typed.how.cost >= Stretching::kLeastCost &&
                       typed.how.cost <= Stretching::kMostCost && readHex(takeField(text), typed.how.salt) &&
                       readHex(text, typed.key);
    return isKey ? std::optional<TypedKey>(std::move(typed)) : std::nullopt;
}

// The master key of a slot, where this is the key that was stretched for it.
std::optional<SecretBytes> masterBy(const std::optional<TypedKey>& typed, const Slot& slot) {
    if (!typed || typed->how.salt != slot.stretching.salt) return std::nullopt;
    return openSlot(slot, typed->key);
}

SlotResult wrongKey(SlotKind kind) {
    return {SlotOutcome::WrongKey, kind == SlotKind::Recovery ? "that is not the recovery code of this key ring"
                                                              : "that is not the passphrase"};
}

SlotResult needed(SlotKind kind) {
    if (kind == SlotKind::Recovery) return {SlotOutcome::NeedsRecovery, "that takes a new recovery code"};
    return {SlotOutcome::NeedsPassphrase, "that takes the passphrase"};
}

SlotResult resultOf(SlotKind kind, const SlotAnswer& answer) {
    const std::string reason = std::string(nameOf(kind)) + ": " + answer.reason;
    switch (answer.outcome) {
        case SlotAnswer::Outcome::Done:
            return kDone;
        case SlotAnswer::Outcome::NotNow:
            return {SlotOutcome::NotNow, reason};
        default:
            return {SlotOutcome::Refused, reason};
    }
}

bool isDone(const SlotResult& result) {
    return result.outcome == SlotOutcome::Done;
}

void add(std::string& reasons, const std::string& reason) {
    if (!reasons.empty()) reasons += "; ";
    reasons += reason;
}

SDSecurity::SlotInfo infoOf(const Slot& slot, const SlotKeepers& keepers) {
    SDSecurity::SlotInfo info{slot.kind, slot.made, SlotState::Typed, ""};
    if (isTyped(slot.kind)) return info;
    const SlotAnswer answer = keepers.open(slot);
    if (answer.outcome != SlotAnswer::Outcome::Done) {
        info.state = answer.outcome == SlotAnswer::Outcome::NotNow ? SlotState::NotNow : SlotState::Refused;
        info.reason = answer.reason;
    } else if (openSlot(slot, answer.key)) {
        info.state = SlotState::Opens;
    } else {
        info.state = SlotState::Refused;
        info.reason = kAnotherKey;
    }
    return info;
}

// Gives a mutex back that the caller holds, for as long as the object lives. isReleased: tells so, guarded by it.
class Released {
public:
    Released(std::mutex& mutex, bool& isReleased) : mMutex(mutex), mIsReleased(isReleased) {
        mIsReleased = true;
        mMutex.unlock();
    }
    ~Released() {
        mMutex.lock();
        mIsReleased = false;
    }
    Released(const Released&) = delete;
    Released& operator=(const Released&) = delete;

private:
    std::mutex& mMutex;
    bool& mIsReleased;
};

}  // namespace

// One that is to stand in the file, with its key.
struct KeyStore::NewSlot {
    Slot slot;
    SecretBytes key;
};

void KeyStore::setSealSocket(const std::string& path) {
    const std::lock_guard lock(mMutex);
    mOpener.keepers().setSealSocket(path);
}

void KeyStore::setKeyringProgram(const std::string& path) {
    const std::lock_guard lock(mMutex);
    mOpener.keepers().setKeyringProgram(path);
}

void KeyStore::watchKeyring() {
    const std::lock_guard lock(mMutex);
    mOpener.watchKeyring();
}

// Asks for a slot's key.
SlotAnswer KeyStore::ask(const Slot& slot) {
    const SlotKeepers keepers = mOpener.keepers();
    const Released released(mMutex, mIsAsking);
    return keepers.open(slot);
}

// Gives up what was kept for slots that never came to stand in a file, or no longer do.
void KeyStore::forget(const std::vector<Slot>& slots) {
    const SlotKeepers keepers = mOpener.keepers();
    const Released released(mMutex, mIsAsking);
    for (const Slot& slot : slots)
        if (!isTyped(slot.kind)) keepers.forget(slot);
}

// ---- Looking ----

// The wrap of the ring as it stands, unopened. Nothing, with why, where there is none.
std::optional<WrappedRing> KeyStore::wrappingThere(SlotResult& why) {
    if (place().kind == Place::Kind::HandedOver) {
        if (!mWrapping) why = kNotWrapped;
        return mWrapping;
    }
    const FileRead file = readPlace();
    why.reason = place().path + ": " + file.reason;
    why.outcome = file.state == KeyRingState::Absent ? SlotOutcome::NoRing : SlotOutcome::RingUnusable;
    if (file.state != KeyRingState::Usable) return std::nullopt;
    if (!isWrapped(viewOf(file.bytes))) {
        const RingRead plain = parseRing(file);
        why = plain.state == KeyRingState::Usable ? kNotWrapped : SlotResult{why.outcome, why.reason + plain.reason};
        return std::nullopt;
    }
    std::string reason;
    std::optional<WrappedRing> wrapping = parseWrappedRing(viewOf(file.bytes), reason);
    why.reason += reason;
    return wrapping;
}

std::optional<WrappedRing> KeyStore::wrappingToTell() {
    SlotResult why = kDone;
    std::optional<WrappedRing> wrapping = wrappingThere(why);
    if (!wrapping && why.outcome == SlotOutcome::RingUnusable) LOG(7, AT "%s", HERE, why.reason.c_str());
    return wrapping;
}

std::vector<SDSecurity::SlotInfo> KeyStore::knownSlots() {
    const std::lock_guard lock(mMutex);
    std::vector<SDSecurity::SlotInfo> all;
    const std::optional<WrappedRing> wrapping = wrappingToTell();
    if (!wrapping) return all;
    for (const Slot& slot : wrapping->slots) all.push_back(mOpener.known(*wrapping, slot));
    return all;
}

std::vector<SDSecurity::SlotInfo> KeyStore::slots() {
    std::optional<WrappedRing> wrapping;
    SlotKeepers keepers;
    {
        const std::lock_guard lock(mMutex);
        wrapping = wrappingToTell();
        keepers = mOpener.keepers();
    }
    std::vector<SDSecurity::SlotInfo> all;
    if (!wrapping) return all;
    std::transform(wrapping->slots.begin(), wrapping->slots.end(), std::back_inserter(all),
                   [&](const Slot& slot) { return infoOf(slot, keepers); });
    return all;
}

SlotResult KeyStore::makeSlotKey(SlotKind kind, SDSecurity::SlotUse use, const std::string& typed, std::string& key) {
    if (!isTyped(kind)) return {SlotOutcome::NoSuchSlot, "nobody types the key of such a slot"};
    SlotResult why{SlotOutcome::Mistyped, "it is empty"};
    std::optional<SecretBytes> text = SecretBytes(typed.begin(), typed.end());
    if (kind == SlotKind::Recovery) text = recoveryCodeOf(typed, why.reason);
    if (!text || text->empty()) return why;
    TypedKey made;
    if (use == SDSecurity::SlotUse::Fresh) {
        fillRandomly(made.how.salt.data(), made.how.salt.size());
    } else {
        const std::lock_guard lock(mMutex);
        const std::optional<WrappedRing> wrapping = wrappingThere(why);
        if (!wrapping) return why;
        const Slot* const slot = wrapping->find(kind);
        if (!slot) return noSlot(kind);
        made.how = slot->stretching;
    }
    made.key = stretch(viewOf(*text), made.how);
    key = lineOf(made);
    return kDone;
}

// ---- Changing ----

SlotResult KeyStore::hold(std::optional<Held>& held) {
    if (place().folder.empty()) return {SlotOutcome::NotOurs, "it is not for this process to write"};
    std::string reason;
    std::optional<LockedFolder> folder = LockedFolder::lock(place().folder, kRotateWait, reason);
    if (!folder) return {SlotOutcome::NotStored, reason};
    RingRead found = read();
    if (found.state == KeyRingState::Usable) found.reason = strangenessOf(found);
    if (found.state == KeyRingState::Absent) return {SlotOutcome::NoRing, found.reason};
    if (found.state == KeyRingState::Locked) return {SlotOutcome::Locked, found.reason};
    if (!found.reason.empty()) return {SlotOutcome::RingUnusable, found.reason};
    keep(found);
    held.emplace(Held{std::move(*folder), std::move(found)});
    return kDone;
}

// A slot of that kind; of one that is typed with the key, which is that of a fresh one.
SlotResult KeyStore::makeSlot(SlotKind kind, const std::string& typedKey, NewSlot& made) {
    made.slot.kind = kind;
    made.slot.made = std::time(nullptr);
    if (isTyped(kind)) {
        std::optional<TypedKey> typed = typedKeyOf(typedKey);
        if (!typed) return needed(kind);
        made.slot.stretching = typed->how;
        made.key = std::move(typed->key);
        return kDone;
    }
    made.key = randomKey();
    const SlotKeepers keepers = mOpener.keepers();
    const Released released(mMutex, mIsAsking);
    SlotAnswer answer = keepers.seal(kind, made.key);
    made.slot.sealed = std::move(answer.sealed);
    return resultOf(kind, answer);
}

// Tries what was read back: each of the slots has to open it.
SlotResult KeyStore::tried(const FileRead& file, const SecretBytes& text, const std::vector<NewSlot>& slots) {
    const SlotKeepers keepers = mOpener.keepers();
    const Released released(mMutex, mIsAsking);
    SlotResult failed{SlotOutcome::NotStored, file.reason};
    const std::optional<WrappedRing> wrapping = parseWrappedRing(viewOf(file.bytes), failed.reason);
    if (!wrapping) return failed;
    for (const NewSlot& made : slots) {
        const Slot* const slot = wrapping->find(made.slot.kind);
        SlotAnswer answer{SlotAnswer::Outcome::Done, made.key, "", ""};
        if (slot && !isTyped(slot->kind)) answer = keepers.open(*slot);
        if (SlotResult result = resultOf(made.slot.kind, answer); !isDone(result)) return result;
        const auto master = slot ? openSlot(*slot, answer.key) : std::nullopt;
        if (!master || openRing(*wrapping, *master) != text)
            return {SlotOutcome::NotStored,
                    "the slot " + std::string(nameOf(made.slot.kind)) + " of the new file does not open it"};
    }
    return kDone;
}

// Writes the ring with these slots beside those that its wrap has. With them the master key is sealed.
SlotResult KeyStore::store(Held& held, RingRead next, const SecretBytes& master, std::vector<NewSlot> slots) {
    const SecretBytes text = formatKeyRing(next.ring);
    for (NewSlot& made : slots) {
        sealSlot(made.slot, made.key, master);
        next.wrapping->put(made.slot);
    }
    sealRing(*next.wrapping, master, text);
    next.master = master;
    SlotResult result = kDone;
    const auto trial = [&](const FileRead& file) {
        result = tried(file, text, slots);
        return result.reason;
    };
    std::string reason;
    const SecretBytes file = formatWrappedRing(*next.wrapping);
    if (!held.folder.replaceTried(kFileName, file, trial, reason)) {
        if (isDone(result)) result = {SlotOutcome::NotStored, reason};
        std::vector<Slot> vain;
        std::transform(slots.begin(), slots.end(), std::back_inserter(vain),
                       [](const NewSlot& made) { return made.slot; });
        if (readPlace().bytes != file) return forget(vain), result;
        keep(std::move(next));  // it stands, but may be gone after a power cut
        return result;
    }
    keep(std::move(next));
    return kDone;
}

SlotResult KeyStore::wrap(Held& held, SlotKind kind, const SlotKeys& keys) {
    if (kind == SlotKind::Recovery) return kNotWrapped;
    std::vector<NewSlot> slots(2);
    if (SlotResult result = makeSlot(SlotKind::Recovery, keys.recovery, slots[0]); !isDone(result)) return result;
    if (SlotResult result = makeSlot(kind, keys.passphrase, slots[1]); !isDone(result)) return result;
    const PlainFile plain(place().path);
    RingRead next = held.found;
    next.wrapping.emplace();
    if (SlotResult result = store(held, std::move(next), randomKey(), std::move(slots)); !isDone(result)) return result;
    const std::string left = plain.overwrite();
    if (left.empty()) return kDone;
    LOG(6, AT "%s: the plain key ring was not overwritten: %s", HERE, place().path.c_str(), left.c_str());
    return {SlotOutcome::Done, "the plain key ring was not overwritten: " + left};
}

SlotResult KeyStore::addSlot(Held& held, SlotKind kind, const SlotKeys& keys) {
    std::vector<NewSlot> slots(1);
    if (SlotResult result = makeSlot(kind, keys.passphrase, slots[0]); !isDone(result)) return result;
    const Slot* const standing = held.found.wrapping->find(kind);
    const std::vector<Slot> replaced(standing ? 1 : 0, standing ? *standing : Slot{});
    SlotResult result = store(held, held.found, held.found.master, std::move(slots));
    if (isDone(result)) forget(replaced);
    return result;
}

// The slot as it stands, with its key, which has to come along.
SlotResult KeyStore::keepSlot(const Slot& standing, const std::string& typedKey, NewSlot& made) const {
    std::optional<TypedKey> typed = typedKeyOf(typedKey);
    if (!typed) return needed(standing.kind);
    if (!masterBy(typed, standing)) return wrongKey(standing.kind);
    made = {standing, std::move(typed->key)};
    return kDone;
}

// Makes the master key and the keys of all slots anew, with the slot `kind` removed or replaced: neither that nor an
// earlier code opens what is written from now on. An earlier copy of the file holds the keys of its time, so another
// one seals.
SlotResult KeyStore::renew(Held& held, SlotKind kind, bool removes, const SlotKeys& keys) {
    RingRead next = held.found;
    const std::vector<Slot> standing = std::move(next.wrapping->slots);
    next.wrapping->slots.clear();
    if (next.ring.keys.size() == kMaxKeys)
        return {SlotOutcome::NotStored, "it is full of keys, and one more is to seal: remove some first"};
    std::vector<NewSlot> slots;
    for (const Slot& slot : standing) {
        if (removes && slot.kind == kind) continue;
        const bool stays = slot.kind == SlotKind::Passphrase && kind != SlotKind::Passphrase;
        const std::string& typed = slot.kind == SlotKind::Recovery ? keys.recovery : keys.passphrase;
        NewSlot made;
        SlotResult result = stays ? keepSlot(slot, typed, made) : makeSlot(slot.kind, typed, made);
        if (!isDone(result)) return result;
        // The same salt is that of what was stretched for the slot that is to go.
        if (!stays && isTyped(slot.kind) && made.slot.stretching.salt == slot.stretching.salt) return needed(slot.kind);
        slots.push_back(std::move(made));
    }
    next.ring.add(makeKey());
    SlotResult result = store(held, std::move(next), randomKey(), std::move(slots));
    if (isDone(result)) forget(standing);
    return result;
}

SlotResult KeyStore::protect(SlotKind kind, const SlotKeys& keys) {
    const std::lock_guard changing(mChangingSlots);
    const std::lock_guard lock(mMutex);
    std::optional<Held> held;
    if (SlotResult result = hold(held); !isDone(result)) return result;
    const std::optional<WrappedRing>& wrapping = held->found.wrapping;
    if (!wrapping) return wrap(*held, kind, keys);
    const bool replacesTyped = isTyped(kind) && wrapping->find(kind);
    return replacesTyped ? renew(*held, kind, false, keys) : addSlot(*held, kind, keys);
}

SlotResult KeyStore::unprotect(SlotKind kind, const SlotKeys& keys) {
    const std::lock_guard changing(mChangingSlots);
    const std::lock_guard lock(mMutex);
    std::optional<Held> held;
    if (SlotResult result = hold(held); !isDone(result)) return result;
    const std::optional<WrappedRing>& wrapping = held->found.wrapping;
    if (!wrapping) return kNotWrapped;
    if (!wrapping->find(kind)) return noSlot(kind);
    if (kind == SlotKind::Recovery || wrapping->slots.size() <= 2)
        return {SlotOutcome::LastSlot, kind == SlotKind::Recovery ? "the recovery code stays as long as there are slots"
                                                                  : "it is the last one beside the recovery code"};
    return renew(*held, kind, true, keys);
}

SlotResult KeyStore::unprotectAll() {
    const std::lock_guard changing(mChangingSlots);
    const std::lock_guard lock(mMutex);
    std::optional<Held> held;
    if (SlotResult result = hold(held); !isDone(result)) return result;
    RingRead next = held->found;
    if (!next.wrapping) return kNotWrapped;
    const std::vector<Slot> slots = std::move(next.wrapping->slots);
    next.wrapping.reset();
    std::string reason;
    if (!held->folder.replace(kFileName, formatKeyRing(next.ring), reason)) return {SlotOutcome::NotStored, reason};
    keep(std::move(next));
    mOpener.reset();
    forget(slots);
    return kDone;
}

// ---- Opening ----

SlotResult KeyStore::openBy(SlotKind kind, const std::string& key) {
    SlotResult why = kDone;
    std::optional<WrappedRing> wrapping = wrappingThere(why);
    if (!wrapping) return why;
    const Slot* const slot = wrapping->find(kind);
    if (!slot) return noSlot(kind);
    const auto master = masterBy(typedKeyOf(key), *slot);
    if (!master) return wrongKey(kind);
    std::optional<SecretBytes> text = openRing(*wrapping, *master);
    if (!text) return {SlotOutcome::RingUnusable, "the slot opens, but not the key ring: it was damaged or edited"};
    RingRead found = parseRing({KeyRingState::Usable, std::move(*text), ""});
    found.wrapping = wrapping;
    if (found.reason.empty()) found.reason = strangenessOf(found);
    if (!found.reason.empty()) return {SlotOutcome::RingUnusable, found.reason};
    found.master = *master;
    keep(std::move(found));
    return kDone;
}

SlotResult KeyStore::unlock(const std::string& key) {
    const std::lock_guard lock(mMutex);
    return openBy(SlotKind::Passphrase, key);
}

SlotResult KeyStore::recover(const std::string& key) {
    const std::lock_guard changing(mChangingSlots);
    const std::lock_guard lock(mMutex);
    if (SlotResult result = openBy(SlotKind::Recovery, key); !isDone(result) || place().folder.empty()) return result;
    std::optional<Held> held;
    if (SlotResult result = hold(held); !isDone(result)) return result;
    std::vector<NewSlot> slots;
    std::vector<Slot> replaced;
    std::string left;
    for (const Slot& slot : held->found.wrapping->slots) {
        if (isTyped(slot.kind)) continue;
        const SlotAnswer answer = ask(slot);
        if (answer.outcome == SlotAnswer::Outcome::Done && openSlot(slot, answer.key)) continue;
        NewSlot made;
        const SlotResult result = makeSlot(slot.kind, "", made);
        if (!isDone(result)) {
            add(left, result.reason);
            continue;
        }
        slots.push_back(std::move(made));
        replaced.push_back(slot);
    }
    if (slots.empty()) return {SlotOutcome::Done, left};
    SlotResult result = store(*held, held->found, held->found.master, std::move(slots));
    if (!isDone(result)) return {result.outcome, result.reason + "; it is open until this process ends"};
    forget(replaced);
    return {SlotOutcome::Done, left};
}

}  // namespace sd::security
