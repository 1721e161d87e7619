// The text of a digest over a data folder: "1-", the id of the key under which it was made, "-", and 64 digits.
#pragma once

#include <algorithm>
#include <cstddef>
#include <string>

namespace apps {

inline constexpr char kDigestForm[] = "1-";
inline constexpr std::size_t kDigestKeyDigits = 16;
inline constexpr std::size_t kDigestDigits = 64;

inline std::string digestText(const std::string& keyId, const std::string& digits) {
    return kDigestForm + keyId + "-" + digits;
}

// Of any text that is none, what stands in the id's place.
inline std::string keyIdOfDigest(const std::string& text) {
    constexpr std::size_t kAt = sizeof kDigestForm - 1;
    return text.size() < kAt ? "" : text.substr(kAt, kDigestKeyDigits);
}

inline bool isDigestText(const std::string& text) {
    const std::string id = keyIdOfDigest(text);
    const std::string digits = text.substr(text.size() - std::min(text.size(), kDigestDigits));
    const auto isHex = [](const std::string& part) {
        return part.find_first_not_of("0123456789abcdef") == std::string::npos;
    };
    return isHex(id) && isHex(digits) && id.size() == kDigestKeyDigits && digits.size() == kDigestDigits &&
           text == digestText(id, digits);
}

}  // namespace apps
