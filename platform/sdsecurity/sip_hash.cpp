#include "platform/sdsecurity/sip_hash.h"

#include <cstddef>

namespace sd::security {
namespace {

constexpr std::size_t kWord = sizeof(std::uint64_t);

std::uint64_t littleEndian(const unsigned char* bytes, std::size_t count) {
    std::uint64_t word = 0;
    for (std::size_t i = 0; i < count; ++i) word |= std::uint64_t{bytes[i]} << (8 * i);
    return word;
}

std::uint64_t rotated(std::uint64_t word, unsigned bits) {
    return word << bits | word >> (64 - bits);
}

// The names and the numbers are those of the paper by Aumasson and Bernstein.
struct State {
    std::uint64_t v0, v1, v2, v3;

    void round() {
        v0 += v1;
        v2 += v3;
        v1 = rotated(v1, 13) ^ v0;
        v3 = rotated(v3, 16) ^ v2;
        v0 = rotated(v0, 32);
        v2 += v1;
        v0 += v3;
        v1 = rotated(v1, 17) ^ v2;
        v3 = rotated(v3, 21) ^ v0;
        v2 = rotated(v2, 32);
    }
    void take(std::uint64_t word) {
        v3 ^= word;
        round();
        round();
        v0 ^= word;
    }
};

}  // namespace

std::uint64_t sipHash(const unsigned char* key, std::string_view text) {
    const std::uint64_t k0 = littleEndian(key, kWord);
    const std::uint64_t k1 = littleEndian(key + kWord, kWord);
    State state{k0 ^ 0x736f6d6570736575U, k1 ^ 0x646f72616e646f6dU, k0 ^ 0x6c7967656e657261U, k1 ^ 0x7465646279746573U};
    const auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
    std::size_t left = text.size();
    for (; left >= kWord; left -= kWord, bytes += kWord) state.take(littleEndian(bytes, kWord));
    state.take(littleEndian(bytes, left) | std::uint64_t{text.size()} << 56U);
    state.v2 ^= 0xffU;
    for (int i = 0; i < 4; ++i) state.round();
    return state.v0 ^ state.v1 ^ state.v2 ^ state.v3;
}

}  // namespace sd::security
