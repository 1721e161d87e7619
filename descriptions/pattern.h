// Patterns that others wrote. They are RE2's: to look for one takes time linear in the text, whatever it is.
#pragma once

#include <cstddef>
#include <string>

namespace sd {

inline constexpr std::size_t kPatternBytesMax = 4096;

// Whether this program is made with RE2. In one without it every pattern is sound and stands in every text: it leaves
// values with a pattern to another program.
bool knowsPatterns();

// Whether the pattern, a sound one, stands anywhere in the text, unless it says where.
bool hasPattern(const std::string& text, const std::string& pattern);

// What is wrong with a pattern; "" where it is sound.
std::string patternProblem(const std::string& pattern);

}  // namespace sd
