// Keys, the ring that holds them, and the ring's text.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/sdsecurity/sdsecurity.h"
#include "platform/sdsecurity/secret_memory.h"

namespace sd::security {

// Takes memory for key material, and wipes what it gives back: neither a freed nor a grown buffer leaves any behind.
template <class T>
struct WipingAllocator {
    using value_type = T;
    WipingAllocator() = default;
    template <class U>
    WipingAllocator(const WipingAllocator<U>& /*other*/) {}
    T* allocate(std::size_t count) { return static_cast<T*>(takeSecretMemory(count * sizeof(T))); }
    void deallocate(T* first, std::size_t count) { giveBackSecretMemory(first, count * sizeof(T)); }
    friend bool operator==(const WipingAllocator& /*a*/, const WipingAllocator& /*b*/) { return true; }
    friend bool operator!=(const WipingAllocator& /*a*/, const WipingAllocator& /*b*/) { return false; }
};
using SecretBytes = std::vector<unsigned char, WipingAllocator<unsigned char>>;

constexpr std::size_t kKeyIdSize = 8;
constexpr std::size_t kKeySize = 32;
constexpr std::size_t kNonceSize = 12;  // this and the tag: of AES-256-GCM
constexpr std::size_t kTagSize = 16;
constexpr std::size_t kRowMarkKeySize = 16;
constexpr std::size_t kDigestSize = 32;  // of SHA-256
using KeyId = std::array<unsigned char, kKeyIdSize>;
using KeyState = SDSecurity::KeyState;
std::string toHex(const KeyId& id);
// Nothing where the text is not the digits of an id.
std::optional<KeyId> keyIdOf(std::string_view digits);

struct Key {
    KeyId id{};              // computed from the bytes, so a damaged key is noticed when its line is read
    SecretBytes bytes;       // kKeySize of them
    SecretBytes rowMarkKey;  // derived from them, kRowMarkKeySize
    SecretBytes digestKey;   // and this, kDigestSize
    KeyState state = KeyState::Opening;
    std::int64_t made = 0;  // UTC seconds; 0: not known
    std::string version;    // of this library, when it made the key; "": not known
};

// The key of these bytes, kKeySize. Throws CryptoFailure.
Key keyOf(SecretBytes bytes);

// A fresh random key that seals, made now. Throws CryptoFailure.
Key makeKey();

// A digest of the texts under a key that is derived from this one, in hexadecimal. Throws CryptoFailure.
std::string digestUnder(const Key& key, const std::vector<std::string_view>& texts);

struct KeyRing {
    std::vector<Key> keys;           // at least one, no two of the same id; exactly one seals
    bool requiresBoundForm = false;  // of the envelopes in rows

    const Key& current() const;
    const Key* find(const KeyId& id) const;
    // Adds a key that seals in the place of the one that did.
    void add(Key key);
};

// The bounds of a ring: each key is good for 2^32 values. A hostile file can make its reader hold no more.
constexpr std::size_t kMaxKeys = SDSecurity::kMostKeys;
constexpr std::size_t kMaxRingText = 32UL * 1024;

// Reads a ring's text; docs/security.md has the grammar of both formats. Any bytes are safe.
// Returns nothing, with the reason (which quotes nothing of the text), where it is not exactly what formatKeyRing
// makes. Throws CryptoFailure.
std::optional<KeyRing> parseKeyRing(std::string_view text, std::string& reason);
// In format 1, which earlier versions read, as long as that has words for all that the ring holds.
SecretBytes formatKeyRing(const KeyRing& ring);

}  // namespace sd::security
