// Keys, the ring that holds them, and the ring's text.
#pragma once

#include <array>
#include <cstddef>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace sd::security {

// Wipes what it gives back, so that neither a freed nor a grown buffer leaves key material behind.
template <class T>
struct WipingAllocator {
    using value_type = T;
    WipingAllocator() = default;
    template <class U>
    WipingAllocator(const WipingAllocator<U>& /*other*/) {}
    T* allocate(std::size_t count) { return std::allocator<T>().allocate(count); }
    void deallocate(T* first, std::size_t count) {
        ::explicit_bzero(first, count * sizeof(T));
        std::allocator<T>().deallocate(first, count);
    }
    friend bool operator==(const WipingAllocator& /*a*/, const WipingAllocator& /*b*/) { return true; }
    friend bool operator!=(const WipingAllocator& /*a*/, const WipingAllocator& /*b*/) { return false; }
};
using SecretBytes = std::vector<unsigned char, WipingAllocator<unsigned char>>;

constexpr std::size_t kKeyIdSize = 8;
constexpr std::size_t kKeySize = 32;
using KeyId = std::array<unsigned char, kKeyIdSize>;
std::string toHex(const KeyId& id);

struct Key {
    KeyId id;           // computed from the bytes, so a damaged key is noticed when its line is read
    SecretBytes bytes;  // kKeySize of them
};

// A fresh random key. Throws CryptoFailure.
Key makeKey();

struct KeyRing {
    std::vector<Key> keys;  // at least one, no two of the same id; the last one seals

    const Key& current() const { return keys.back(); }
    const Key* find(const KeyId& id) const;
};

// The bound of a ring's text, and so of what a hostile file can make a reader hold: 199 keys, each good for 2^32
// values.
constexpr std::size_t kMaxRingText = 16UL * 1024;

// Reads a ring's text; docs/security.md has the grammar. Any bytes are safe.
// Returns nothing, with the reason (which quotes nothing of the text), where it is not exactly what formatKeyRing
// makes. Throws CryptoFailure.
std::optional<KeyRing> parseKeyRing(std::string_view text, std::string& reason);
SecretBytes formatKeyRing(const KeyRing& ring);

}  // namespace sd::security
