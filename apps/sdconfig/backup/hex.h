// Bytes as lower-case hexadecimal digits.
#pragma once

#include <string>
#include <string_view>

namespace cli {

inline constexpr std::string_view kHexDigits = "0123456789abcdef";

inline std::string toHex(std::string_view bytes) {
    std::string text;
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        text += {kHexDigits[byte >> 4], kHexDigits[byte & 15]};
    }
    return text;
}

// Stops at the first digit that is none, and at half a byte.
inline std::string fromHex(std::string_view text) {
    std::string bytes;
    for (std::size_t at = 0; at + 1 < text.size(); at += 2) {
        const std::size_t high = kHexDigits.find(text[at]);
        const std::size_t low = kHexDigits.find(text[at + 1]);
        if (high == std::string_view::npos || low == std::string_view::npos) break;
        bytes += static_cast<char>(high << 4 | low);
    }
    return bytes;
}

}  // namespace cli
