// Method and event names as D-Bus member names.
#include "platform/sdbus/names.h"

#include <algorithm>
#include <cstring>

namespace sdbus {
namespace {

constexpr char kPrefix[] = "_hex_";
constexpr std::size_t kPrefixLength = sizeof(kPrefix) - 1;
constexpr std::size_t kMemberMax = 255;
constexpr char kDigits[] = "0123456789abcdef";

bool hasPrefix(const std::string& text) {
    return text.compare(0, kPrefixLength, kPrefix) == 0;
}

bool isLetter(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_';
}

bool isMember(const std::string& name) {
    if (name.empty() || name.size() > kMemberMax || !isLetter(name[0])) return false;
    return std::all_of(name.begin(), name.end(), [](char c) { return isLetter(c) || (c >= '0' && c <= '9'); });
}

std::optional<unsigned> digitValue(char digit) {
    const void* found = std::memchr(kDigits, digit, sizeof(kDigits) - 1);
    if (!found) return std::nullopt;
    return static_cast<unsigned>(static_cast<const char*>(found) - kDigits);
}

std::optional<std::string> decodeHex(const std::string& hex) {
    if (hex.size() % 2 != 0) return std::nullopt;
    std::string bytes;
    bytes.reserve(hex.size() / 2);
    for (std::size_t i = 0; i < hex.size(); i += 2) {
        const auto high = digitValue(hex[i]);
        const auto low = digitValue(hex[i + 1]);
        if (!high || !low) return std::nullopt;
        bytes.push_back(static_cast<char>(*high << 4 | *low));
    }
    return bytes;
}

}  // namespace

std::optional<std::string> encodeName(const std::string& name) {
    if (isMember(name) && !hasPrefix(name)) return name;
    if (kPrefixLength + name.size() * 2 > kMemberMax) return std::nullopt;
    std::string member = kPrefix;
    for (const char c : name) {
        const auto byte = static_cast<unsigned char>(c);
        member.push_back(kDigits[byte >> 4]);
        member.push_back(kDigits[byte & 15]);
    }
    return member;
}

std::optional<std::string> decodeName(const std::string& member) {
    if (!hasPrefix(member)) return isMember(member) ? std::optional(member) : std::nullopt;
    auto name = decodeHex(member.substr(kPrefixLength));
    if (!name || encodeName(*name) != member) return std::nullopt;
    return name;
}

}  // namespace sdbus
