#include "platform/sdsecurity/wrapped_ring.h"

#include <algorithm>
#include <iterator>

#include "platform/sdsecurity/crypto.h"
#include "platform/sdsecurity/hex.h"
#include "platform/sdsecurity/ring_text.h"

namespace sd::security {
namespace {

constexpr std::string_view kName = "sdsecurity-wrapped-keys ";
constexpr std::string_view kHeader = "sdsecurity-wrapped-keys 1\n";
constexpr std::string_view kSlot = "slot ";
constexpr std::string_view kRing = "ring ";
constexpr std::string_view kSlotLabel = "sdsecurity slot v1\n";

constexpr std::uint64_t kBlockSize = 8;
constexpr std::uint64_t kParallel = 1;

// By kind.
constexpr std::array<std::string_view, 4> kKinds = {"recovery", "passphrase", "host", "keyring"};

// What its tag covers of a slot, as it stands in its line: the kind and all that its key is had by.
std::string describe(const Slot& slot) {
    std::string text(kSlot);
    text.append(nameOf(slot.kind)).append(" ").append(std::to_string(slot.made)).append(" ");
    if (!isTyped(slot.kind)) return text.append(slot.sealed).append(" ");
    text.append(std::to_string(slot.stretching.cost)).append(" ");
    appendHex(slot.stretching.salt, text);
    return text.append(" ");
}

// The lines that the ring's tag covers.
std::string head(const std::vector<Slot>& slots) {
    std::string text(kHeader);
    for (const Slot& slot : slots) {
        text += describe(slot);
        appendHex(slot.nonce, text);
        text += ' ';
        appendHex(slot.master, text);
        text += '\n';
    }
    return text;
}

BytesView bytesOf(std::string_view text) {
    return {reinterpret_cast<const unsigned char*>(text.data()), text.size()};
}

bool isPrintable(std::string_view text) {
    return !text.empty() && text.size() <= kMaxSealedSlot &&
           std::all_of(text.begin(), text.end(), [](char c) { return c > ' ' && c <= '~'; });
}

bool readCost(std::string_view field, unsigned& cost) {
    return readNumber(field, cost) && cost >= Stretching::kLeastCost && cost <= Stretching::kMostCost;
}

// Reads what stands in a line behind "slot ". Returns why it can't be used, or null.
const char* parseSlot(std::string_view line, Slot& slot) {
    const auto* const kind = std::find(kKinds.begin(), kKinds.end(), takeField(line));
    if (kind == kKinds.end()) return "holds a slot of an unknown kind, as a later version made it";
    slot.kind = static_cast<SlotKind>(std::distance(kKinds.begin(), kind));
    if (!readNumber(takeField(line), slot.made)) return "holds no time";
    if (isTyped(slot.kind)) {
        if (!readCost(takeField(line), slot.stretching.cost)) return "holds no cost that is allowed";
        if (!readHex(takeField(line), slot.stretching.salt)) return "holds no salt";
    } else {
        slot.sealed = takeField(line);
        if (!isPrintable(slot.sealed)) return "does not tell how its key is had";
    }
    const bool sound = readHex(takeField(line), slot.nonce) && readHex(line, slot.master);
    return sound ? nullptr : "holds no sealed master key";
}

// Takes the slots' lines off the text. Returns why that can't be done, or "".
std::string parseSlots(std::string_view& text, std::vector<Slot>& slots) {
    while (text.substr(0, kSlot.size()) == kSlot) {
        const std::string line = "line " + std::to_string(2 + slots.size());
        const std::size_t end = text.find('\n');
        if (end == std::string_view::npos) return line + " is cut short";
        Slot slot;
        if (const char* why = parseSlot(text.substr(kSlot.size(), end - kSlot.size()), slot)) return line + ' ' + why;
        if (!slots.empty() && slot.kind == slots.back().kind) return line + " repeats a kind of slot";
        if (!slots.empty() && slot.kind < slots.back().kind) return line + " is not where its kind of slot stands";
        slots.push_back(std::move(slot));
        text.remove_prefix(end + 1);
    }
    return slots.empty() || slots.front().kind != SlotKind::Recovery ? "it has no recovery slot" : "";
}

std::string parseSealedRing(std::string_view text, WrappedRing& wrapped) {
    if (text.substr(0, kRing.size()) != kRing || text.back() != '\n') return "its last line holds no ring";
    text = text.substr(kRing.size(), text.size() - kRing.size() - 1);
    const bool hasNonce = readHex(takeField(text), wrapped.nonce);
    wrapped.ring.resize(text.size() / 2);
    if (!hasNonce || wrapped.ring.size() <= kTagSize || wrapped.ring.size() > kMaxRingText + kTagSize ||
        !readHex(text, wrapped.ring))
        return "its last line holds no ring";
    return "";
}

}  // namespace

const Slot* WrappedRing::find(SlotKind kind) const {
    const auto found = std::find_if(slots.begin(), slots.end(), [kind](const Slot& slot) { return slot.kind == kind; });
    return found == slots.end() ? nullptr : &*found;
}

void WrappedRing::put(Slot slot) {
    remove(slot.kind);
    const auto place =
        std::find_if(slots.begin(), slots.end(), [&](const Slot& other) { return other.kind > slot.kind; });
    slots.insert(place, std::move(slot));
}

void WrappedRing::remove(SlotKind kind) {
    slots.erase(std::remove_if(slots.begin(), slots.end(), [kind](const Slot& slot) { return slot.kind == kind; }),
                slots.end());
}

bool haveSameSlots(const WrappedRing& one, const WrappedRing& other) {
    return head(one.slots) == head(other.slots);
}

std::string_view nameOf(SlotKind kind) {
    return kKinds.at(static_cast<std::size_t>(kind));
}

bool isWrapped(std::string_view text) {
    return text.substr(0, kName.size()) == kName;
}

std::optional<WrappedRing> parseWrappedRing(std::string_view text, std::string& reason) {
    WrappedRing wrapped;
    if (text.size() > kMaxWrappedText)
        reason = "it is larger than " + std::to_string(kMaxWrappedText) + " bytes";
    else if (text.substr(0, kHeader.size()) == kHeader) {
        text.remove_prefix(kHeader.size());
        reason = parseSlots(text, wrapped.slots);
        if (reason.empty()) reason = parseSealedRing(text, wrapped);
    } else
        reason = isWrapped(text) ? "it is in a format of a later version" : "its first line is not that of a key ring";
    return reason.empty() ? std::optional<WrappedRing>(std::move(wrapped)) : std::nullopt;
}

SecretBytes formatWrappedRing(const WrappedRing& wrapped) {
    std::string text = head(wrapped.slots).append(kRing);
    appendHex(wrapped.nonce, text);
    text += ' ';
    appendHex(wrapped.ring, text);
    text += '\n';
    return {text.begin(), text.end()};
}

SecretBytes randomKey() {
    SecretBytes key(kKeySize);
    fillRandomly(key.data(), key.size());
    return key;
}

SecretBytes stretch(std::string_view typed, const Stretching& how) {
    demandCrypto();
    const std::uint64_t n = std::uint64_t{1} << how.cost;
    const std::uint64_t memory = std::uint64_t{256} * n * kBlockSize;  // twice what it takes
    SecretBytes key(kKeySize);
    demand(openssl().EVP_PBE_scrypt(typed.data(), typed.size(), how.salt.data(), how.salt.size(), n, kBlockSize,
                                    kParallel, memory, key.data(), key.size()) == 1);
    return key;
}

void sealSlot(Slot& slot, const SecretBytes& slotKey, const SecretBytes& master) {
    const std::string covered = std::string(kSlotLabel) + describe(slot);
    fillRandomly(slot.nonce.data(), slot.nonce.size());
    encrypt(slotKey.data(), slot.nonce.data(), bytesOf(covered), bytesOf(viewOf(master)), slot.master.data());
}

std::optional<SecretBytes> openSlot(const Slot& slot, const SecretBytes& slotKey) {
    if (slotKey.size() != kKeySize) return std::nullopt;
    const std::string covered = std::string(kSlotLabel) + describe(slot);
    SecretBytes master(kKeySize);
    if (!decrypt(slotKey.data(), slot.nonce.data(), bytesOf(covered), bytesOf(viewOf(slot.master)), master.data()))
        return std::nullopt;
    return master;
}

void sealRing(WrappedRing& wrapped, const SecretBytes& master, const SecretBytes& text) {
    const std::string covered = head(wrapped.slots);
    wrapped.ring.resize(text.size() + kTagSize);
    fillRandomly(wrapped.nonce.data(), wrapped.nonce.size());
    encrypt(master.data(), wrapped.nonce.data(), bytesOf(covered), bytesOf(viewOf(text)), wrapped.ring.data());
}

std::optional<SecretBytes> openRing(const WrappedRing& wrapped, const SecretBytes& master) {
    const std::string covered = head(wrapped.slots);
    SecretBytes text(wrapped.ring.size() - kTagSize);
    if (!decrypt(master.data(), wrapped.nonce.data(), bytesOf(covered), bytesOf(viewOf(wrapped.ring)), text.data()))
        return std::nullopt;
    return text;
}

}  // namespace sd::security
