#include "policies/policy_value.h"

#include <charconv>

#include "base/sdconfig_types.h"

namespace sd {

std::string unfitPolicyValue(const std::string& value) {
    if (value.find('\0') != std::string::npos) return "has a zero byte, behind which the store keeps nothing";
    // A policy is kept as VALUE&&&PRIORITY and split at the first "&&&", which a final "&" would move.
    if (value.find("&&&") != std::string::npos) return R"(contains "&&&", which the store takes for its end)";
    if (!value.empty() && value.back() == '&') return R"(ends with "&", which the store takes for part of its end)";
    if (value == kNullValue) return R"(is the word for no value; "" says that)";
    return "";
}

std::optional<int> parsePriority(const std::string& text) {
    int number = -1;
    const char* const end = text.data() + text.size();
    const auto [stop, failure] = std::from_chars(text.data(), end, number);
    if (failure != std::errc() || stop != end || number < 0 || number > kHighestPriority) return std::nullopt;
    return number;
}

}  // namespace sd
