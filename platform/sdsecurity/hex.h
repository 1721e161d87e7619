// Bytes as hexadecimal digits.
#pragma once

#include <cstddef>
#include <string_view>

namespace sd::security {

constexpr std::string_view kHexDigits = "0123456789abcdef";

// At the end of a text that has push_back().
template <class Bytes, class Text>
void appendHex(const Bytes& bytes, Text& text) {
    for (const unsigned char byte : bytes) {
        text.push_back(static_cast<typename Text::value_type>(kHexDigits[byte >> 4U]));
        text.push_back(static_cast<typename Text::value_type>(kHexDigits[byte & 0xfU]));
    }
}

// Fills the bytes, whose number the text has to fit. Lower case only, so that bytes have one text.
template <class Bytes>
bool readHex(std::string_view text, Bytes& bytes) {
    if (text.size() != 2 * bytes.size()) return false;
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        const std::size_t high = kHexDigits.find(text[2 * i]);
        const std::size_t low = kHexDigits.find(text[2 * i + 1]);
        if (high == std::string_view::npos || low == std::string_view::npos) return false;
        bytes[i] = static_cast<unsigned char>(high << 4U | low);
    }
    return true;
}

}  // namespace sd::security
