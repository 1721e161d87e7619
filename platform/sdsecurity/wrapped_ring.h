// A key ring wrapped under a random master key, which stands in slots: the key of any one opens it.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/sdsecurity/key_ring.h"
#include "platform/sdsecurity/sdsecurity.h"
#include "platform/sdsecurity/slot_answer.h"

namespace sd::security {

using SlotKind = SDSecurity::SlotKind;

constexpr std::size_t kSaltSize = 16;
constexpr std::size_t kSealedMasterSize = kKeySize + kTagSize;
using Nonce = std::array<unsigned char, kNonceSize>;

// How a text is stretched: scrypt of N = 2^cost, r = 8, p = 1.
struct Stretching {
    static constexpr unsigned kCost = 17;  // of a new one: 128 MiB of memory and half a second
    static constexpr unsigned kLeastCost = 15;
    static constexpr unsigned kMostCost = 18;  // what a hostile file may make its reader spend

    unsigned cost = kCost;
    std::array<unsigned char, kSaltSize> salt{};
};

// Whether the slot's key comes from what somebody types; else from somebody who is asked.
constexpr bool isTyped(SlotKind kind) {
    return kind == SlotKind::Recovery || kind == SlotKind::Passphrase;
}

struct Slot {
    SlotKind kind{};
    std::int64_t made = 0;  // UTC seconds
    Stretching stretching;  // of one that is typed
    std::string sealed;     // of any other: what stands for its key with whom it is asked of
    Nonce nonce{};
    std::array<unsigned char, kSealedMasterSize> master{};  // and its tag
};

struct WrappedRing {
    std::vector<Slot> slots;  // in the order of their kinds, one of each at most; always one of recovery
    Nonce nonce{};
    std::vector<unsigned char> ring;  // the sealed text and its tag

    const Slot* find(SlotKind kind) const;
    // In the place of the one of its kind.
    void put(Slot slot);
    void remove(SlotKind kind);
};

bool haveSameSlots(const WrappedRing& one, const WrappedRing& other);

// The bound of a text; a hostile file can make its reader hold no more.
constexpr std::size_t kMaxWrappedText = 2 * (kMaxRingText + kTagSize) + 2 * kMaxSealedSlot + 2048;

// As "host".
std::string_view nameOf(SlotKind kind);

// Whether the text is one of this kind, of whatever version.
bool isWrapped(std::string_view text);

// Reads the text; docs/security.md has the grammar. Any bytes are safe. Returns nothing, with the reason (which quotes
// nothing of the text), where it is not exactly what formatWrappedRing makes.
std::optional<WrappedRing> parseWrappedRing(std::string_view text, std::string& reason);
SecretBytes formatWrappedRing(const WrappedRing& wrapped);

// All below throw CryptoFailure.

SecretBytes randomKey();

// Stretches what was typed: half a second, and 128 MiB, at the usual cost.
SecretBytes stretch(std::string_view typed, const Stretching& how);

// Puts the master into a slot that has all else.
void sealSlot(Slot& slot, const SecretBytes& slotKey, const SecretBytes& master);
// The master; nothing with another key, or where the slot was changed.
std::optional<SecretBytes> openSlot(const Slot& slot, const SecretBytes& slotKey);

// Puts the ring's text into a wrap that has all its slots.
void sealRing(WrappedRing& wrapped, const SecretBytes& master, const SecretBytes& text);
// The ring's text; nothing with another master, or where anything was changed.
std::optional<SecretBytes> openRing(const WrappedRing& wrapped, const SecretBytes& master);

}  // namespace sd::security
