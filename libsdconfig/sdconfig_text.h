// Text that was set, as it was set.
#pragma once

#include <cstddef>
#include <string>

namespace sd {

// Undoes what the stores do to a secure value or a policy's value: they take its bytes for Latin-1 and keep UTF-8, so
// that "grün" reads back as "grÃ¼n".
//
// stored: a value of SDConfig::GetSecure or of a policy, or one that a listener was told of either. Properties and
// constants are kept as they are and don't need it.
// Returns the bytes that were given to SetSecure or SetPolicyWithUri, up to their first zero byte. ASCII comes back as
// it is, and so does, whole, what the stores didn't make: bytes that are no UTF-8, or have a character beyond U+00FF.
// Calls nobody and logs nothing. Any thread.
inline std::string textAsSet(const std::string& stored) {
    std::string set;
    for (std::size_t at = 0; at < stored.size(); ++at) {
        const auto byte = static_cast<unsigned char>(stored[at]);
        if (byte < 0x80) {
            set += stored[at];
            continue;
        }
        // U+0080 to U+00FF: 110000ab 10cdefgh stands for abcdefgh.
        const unsigned next = at + 1 < stored.size() ? static_cast<unsigned char>(stored[at + 1]) : 0u;
        if ((byte != 0xc2 && byte != 0xc3) || (next & 0xc0u) != 0x80u) return stored;
        set += static_cast<char>((byte & 3u) << 6 | (next & 0x3fu));
        ++at;
    }
    return set;
}

}  // namespace sd
