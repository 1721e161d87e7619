#include "apps/sdconfig/policy_value.h"

#include <charconv>

#include "libsdconfig/sdconfig_types.h"

namespace cli {

namespace {

// The value in Latin-1; nothing where it has a character beyond that, or is not UTF-8.
std::optional<std::string> latin1(const std::string& utf8) {
    std::string bytes;
    for (std::size_t at = 0; at < utf8.size(); ++at) {
        const auto byte = static_cast<unsigned char>(utf8[at]);
        if (byte < 0x80) {
            bytes += utf8[at];
            continue;
        }
        const unsigned next = at + 1 < utf8.size() ? static_cast<unsigned char>(utf8[at + 1]) : 0u;
        if ((byte != 0xc2 && byte != 0xc3) || (next & 0xc0u) != 0x80u) return std::nullopt;
        bytes += static_cast<char>((byte & 3u) << 6 | (next & 0x3fu));
        ++at;
    }
    return bytes;
}

}  // namespace

std::string unfitPolicyValue(const std::string& value) {
    if (value.find('\0') != std::string::npos) return "has a zero byte, behind which the store keeps nothing";
    // A policy is kept as VALUE&&&PRIORITY and split at the first "&&&", which a final "&" would move.
    if (value.find("&&&") != std::string::npos) return R"(contains "&&&", which the store takes for its end)";
    if (!value.empty() && value.back() == '&') return R"(ends with "&", which the store takes for part of its end)";
    if (value == sd::kNullValue) return R"(is the word for no value; "" says that)";
    if (!latin1(value)) return "is not UTF-8 text of characters up to U+00FF, which are all that the store keeps";
    return "";
}

std::string policyBytes(const std::string& value) {
    return latin1(value).value_or("");
}

std::optional<int> parsePriority(const std::string& text) {
    int number = -1;
    const char* const end = text.data() + text.size();
    const auto [stop, failure] = std::from_chars(text.data(), end, number);
    if (failure != std::errc() || stop != end || number < 0 || number > kHighestPriority) return std::nullopt;
    return number;
}

}  // namespace cli
