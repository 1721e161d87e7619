// Keys of secure values and policies don't tell upper from lower case, in ASCII alone.
#pragma once

#include <algorithm>
#include <string>
#include <string_view>

namespace sd {

inline char folded(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

inline std::string folded(std::string key) {
    for (char& c : key) c = folded(c);
    return key;
}

// Negative, 0 or positive, as the first of the two comes before, is, or comes after the other, in the order of their
// bytes.
inline int compareFolded(std::string_view one, std::string_view other) {
    const std::size_t common = std::min(one.size(), other.size());
    for (std::size_t i = 0; i < common; ++i) {
        const auto a = static_cast<unsigned char>(folded(one[i]));
        const auto b = static_cast<unsigned char>(folded(other[i]));
        if (a != b) return a - b;
    }
    return one.size() < other.size() ? -1 : one.size() > other.size() ? 1 : 0;
}

}  // namespace sd
