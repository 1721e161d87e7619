// How a policy stands in its row, before it is sealed: "<value>&&&<priority in decimal>".
#pragma once

#include <string>
#include <utility>

namespace sd {

inline constexpr char kPolicySeparator[] = "&&&";

inline std::string composePolicyText(const std::string& value, int priority) {
    return value + kPolicySeparator + std::to_string(priority);
}

// The value, and the text of the priority, unchecked. A text without the separator is of the earlier form: a value
// followed by a priority of one digit. text: not empty.
inline std::pair<std::string, std::string> splitPolicyText(const std::string& text) {
    const std::string separator = kPolicySeparator;
    if (const size_t at = text.find(separator); at != std::string::npos)
        return {text.substr(0, at), text.substr(at + separator.size())};
    return {text.substr(0, text.size() - 1), text.substr(text.size() - 1)};
}

}  // namespace sd
