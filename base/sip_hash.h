// SipHash-2-4: a short keyed digest of a short text. For those who need no more than that, and shall neither load
// OpenSSL for it nor pay for what its digests cost to set up.
#pragma once

#include <endian.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace sd {

// Two words of 8 bytes each, the lowest byte first.
using SipKey = std::array<std::uint64_t, 2>;

// The names and the numbers are those of the paper by Aumasson and Bernstein.
class SipState {
public:
    explicit SipState(const SipKey& key)
        : mV0(key[0] ^ 0x736f6d6570736575),
          mV1(key[1] ^ 0x646f72616e646f6d),
          mV2(key[0] ^ 0x6c7967656e657261),
          mV3(key[1] ^ 0x7465646279746573) {}

    void take(std::uint64_t word) {
        mV3 ^= word;
        mix(2);
        mV0 ^= word;
    }

    std::uint64_t finish() {
        mV2 ^= 0xff;
        mix(4);
        return mV0 ^ mV1 ^ mV2 ^ mV3;
    }

private:
    static std::uint64_t rotated(std::uint64_t word, unsigned bits) { return word << bits | word >> (64U - bits); }

    void mix(int rounds) {
        for (; rounds > 0; --rounds) {
            mV0 += mV1;
            mV2 += mV3;
            mV1 = rotated(mV1, 13) ^ mV0;
            mV3 = rotated(mV3, 16) ^ mV2;
            mV0 = rotated(mV0, 32);
            mV2 += mV1;
            mV0 += mV3;
            mV1 = rotated(mV1, 17) ^ mV2;
            mV3 = rotated(mV3, 21) ^ mV0;
            mV2 = rotated(mV2, 32);
        }
    }

    std::uint64_t mV0, mV1, mV2, mV3;
};

// Up to 8 bytes, the lowest first.
inline std::uint64_t sipWord(std::string_view bytes) {
    std::uint64_t word = 0;
    for (std::size_t i = bytes.size(); i > 0; --i) word = word << 8U | static_cast<unsigned char>(bytes[i - 1]);
    return word;
}

// The first 8 of them, in one load.
inline std::uint64_t wholeSipWord(std::string_view bytes) {
    std::uint64_t word = 0;
    std::memcpy(&word, bytes.data(), sizeof word);
    return ::le64toh(word);
}

// Who has not the key can neither foresee a hash nor find by trying which text has one.
inline std::uint64_t sipHash(const SipKey& key, std::string_view text) {
    constexpr std::size_t kWord = 8;
    const std::uint64_t length = text.size();
    SipState state(key);
    for (; text.size() >= kWord; text.remove_prefix(kWord)) state.take(wholeSipWord(text));
    state.take(length << 56U | sipWord(text));
    return state.finish();
}

}  // namespace sd
