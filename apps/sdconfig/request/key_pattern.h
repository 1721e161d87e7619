// What stands for several keys on the command line: "velmar.proxy.*" is every key that begins with "velmar.proxy.".
#pragma once

#include <algorithm>
#include <string>
#include <vector>

namespace cli {

inline bool isPattern(const std::string& text) {
    return !text.empty() && text.back() == '*';
}

// Whether the key is the one that is named, or one of those that the pattern stands for.
inline bool fits(const std::string& key, const std::string& pattern) {
    return isPattern(pattern) ? key.compare(0, pattern.size() - 1, pattern, 0, pattern.size() - 1) == 0
                              : key == pattern;
}

inline bool fitsAny(const std::string& key, const std::vector<std::string>& patterns) {
    return std::any_of(patterns.begin(), patterns.end(), [&](const std::string& one) { return fits(key, one); });
}

}  // namespace cli
