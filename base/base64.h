// Bytes as base64, for texts that can't hold them as they are.
#pragma once

#include <algorithm>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace sd {

inline constexpr std::string_view kBase64Digits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

inline std::string toBase64(std::string_view bytes) {
    std::string text;
    for (std::size_t at = 0; at < bytes.size(); at += 3) {
        const std::size_t count = std::min<std::size_t>(3, bytes.size() - at);
        unsigned bits = 0;
        for (std::size_t i = 0; i < 3; ++i)
            bits = bits << 8 | (i < count ? static_cast<unsigned char>(bytes[at + i]) : 0u);
        for (std::size_t i = 0; i < 4; ++i) text += i <= count ? kBase64Digits[bits >> (18 - 6 * i) & 63u] : '=';
    }
    return text;
}

// Nothing where the text is not what toBase64 makes of some bytes.
inline std::optional<std::string> fromBase64(std::string_view text) {
    std::string bytes;
    unsigned bits = 0;
    int count = 0;
    for (const char digit : text.substr(0, text.find('='))) {
        const std::size_t value = kBase64Digits.find(digit);
        if (value == std::string_view::npos) return std::nullopt;
        bits = bits << 6 | static_cast<unsigned>(value);
        count += 6;
        if (count < 8) continue;
        count -= 8;
        bytes += static_cast<char>(bits >> count & 255u);
    }
    return toBase64(bytes) == text ? std::optional(std::move(bytes)) : std::nullopt;
}

}  // namespace sd
