#include "apps/common/escaped.h"

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

}  // namespace apps
