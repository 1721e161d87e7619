// A client that logs must not load OpenSSL for it, so the log layer has a hash of its own.
#include "platform/velmarlog/siphash.h"

#include <cstddef>

namespace velmarlog {
namespace {

using State = std::array<std::uint64_t, 4>;

constexpr std::size_t kWord = 8;

std::uint64_t rotated(std::uint64_t word, unsigned bits) {
    return word << bits | word >> (64U - bits);
}

void mix(State& v, int rounds) {
    for (; rounds > 0; --rounds) {
        v[0] += v[1];
        v[2] += v[3];
        v[1] = rotated(v[1], 13) ^ v[0];
        v[3] = rotated(v[3], 16) ^ v[2];
        v[0] = rotated(v[0], 32);
        v[2] += v[1];
        v[0] += v[3];
        v[1] = rotated(v[1], 17) ^ v[2];
        v[3] = rotated(v[3], 21) ^ v[0];
        v[2] = rotated(v[2], 32);
    }
}

void absorb(State& v, std::uint64_t word) {
    v[3] ^= word;
    mix(v, 2);
    v[0] ^= word;
}

// Up to 8 bytes, the lowest first.
std::uint64_t wordOf(std::string_view bytes) {
    std::uint64_t word = 0;
    for (std::size_t i = bytes.size(); i > 0; --i) word = word << 8U | static_cast<unsigned char>(bytes[i - 1]);
    return word;
}

}  // namespace

std::uint64_t sipHash(const SipKey& key, std::string_view text) {
    const std::uint64_t length = text.size();
    State v{key[0] ^ 0x736f6d6570736575, key[1] ^ 0x646f72616e646f6d, key[0] ^ 0x6c7967656e657261,
            key[1] ^ 0x7465646279746573};
    for (; text.size() >= kWord; text.remove_prefix(kWord)) absorb(v, wordOf(text.substr(0, kWord)));
    absorb(v, length << 56U | wordOf(text));
    v[2] ^= 0xff;
    mix(v, 4);
    return v[0] ^ v[1] ^ v[2] ^ v[3];
}

}  // namespace velmarlog
