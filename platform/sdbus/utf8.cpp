// Which strings may travel as a D-Bus string.
#include "platform/sdbus/utf8.h"

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace sdbus {
namespace {

// How many bytes a character has, by its first one; 0 where no character begins so.
std::size_t lengthBy(unsigned char first) {
    if (first < 0x80) return first == 0 ? 0 : 1;
    if (first >= 0xc2 && first <= 0xdf) return 2;
    if (first >= 0xe0 && first <= 0xef) return 3;
    if (first >= 0xf0 && first <= 0xf4) return 4;
    return 0;
}

bool isNoncharacter(uint32_t c) {
    return (c >= 0xfdd0 && c <= 0xfdef) || (c & 0xfffe) == 0xfffe;
}

bool isSurrogate(uint32_t c) {
    return c >= 0xd800 && c <= 0xdfff;
}

// Whether `length` bytes, 2 to 4 of them, are the one right way to write a character that may travel.
bool isCharacter(const unsigned char* bytes, std::size_t length) {
    constexpr uint32_t kLeast[] = {0, 0, 0x80, 0x800, 0x10000};
    uint32_t c = bytes[0] & (0xffU >> (length + 1));
    for (std::size_t i = 1; i < length; ++i) {
        if ((bytes[i] & 0xc0) != 0x80) return false;
        c = c << 6 | (bytes[i] & 0x3fU);
    }
    return c >= kLeast[length] && c <= 0x10ffff && !isSurrogate(c) && !isNoncharacter(c);
}

// Goes on by eight bytes at a time as long as they are ASCII without a zero, which nearly every text is all through.
const unsigned char* skipPlain(const unsigned char* at, const unsigned char* end) {
    constexpr uint64_t kOnes = 0x0101010101010101;
    constexpr uint64_t kHighs = 0x8080808080808080;
    for (uint64_t bytes = 0; static_cast<std::size_t>(end - at) >= sizeof bytes; at += sizeof bytes) {
        std::memcpy(&bytes, at, sizeof bytes);
        if (((bytes - kOnes) | bytes) & kHighs) break;
    }
    return at;
}

}  // namespace

bool isWireText(const std::string& text) {
    const auto* at = reinterpret_cast<const unsigned char*>(text.data());
    const auto* const end = at + text.size();
    while ((at = skipPlain(at, end)) < end) {
        const std::size_t length = lengthBy(*at);
        if (length == 0 || length > static_cast<std::size_t>(end - at)) return false;
        if (length > 1 && !isCharacter(at, length)) return false;
        at += length;
    }
    return true;
}

}  // namespace sdbus
