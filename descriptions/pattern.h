// Patterns that others wrote. They are RE2's: to find one takes time linear in the text, whatever it is.
#pragma once

#include <string>

namespace sd {

inline constexpr std::size_t kPatternBytesMax = 4096;

enum class PatternMatch {
    Found,
    NotFound,
    Unknown,  // this program is made without RE2, and another one has to look
};

// The pattern is sound. It is found anywhere in the text, unless it says where.
PatternMatch findPattern(const std::string& pattern, const std::string& text);

// What is wrong with a pattern; "" where it is sound, or this program can't tell.
std::string patternProblem(const std::string& pattern);

}  // namespace sd
