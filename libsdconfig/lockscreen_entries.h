// How the old lock-screen text is taken apart. Not for users of the library.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace sd {

// The entries of a text such as {"name": {...}, "other": {...}}: names, and their objects as they stand, braces
// included. It is no JSON parser: no escapes, an object ends at its first closing brace, an entry that is cut short is
// dropped.
std::vector<std::pair<std::string, std::string>> lockscreenEntries(const std::string& text);

}  // namespace sd
