#include "apps/common/escaped.h"

#include <algorithm>
#include <cctype>
#include <cstring>

namespace apps {

std::string escaped(const std::string& text) {
    static constexpr char kHex[] = "0123456789abcdef";
    std::string out;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte >= 0x20 && byte != 0x7f) {
            out += c;
        } else {
            out += "\\x";
            out += kHex[byte >> 4];
            out += kHex[byte & 15];
        }
    }
    return out;
}

std::string shellWord(const std::string& text) {
    const auto plain = [](unsigned char c) { return std::isalnum(c) || c >= 0x80 || std::strchr("/._-+:,@%=", c); };
    if (!text.empty() && std::all_of(text.begin(), text.end(), plain)) return text;
    std::string word = "'";
    for (const char c : text) c == '\'' ? word += "'\\''" : word += c;
    return word + "'";
}

}  // namespace apps
