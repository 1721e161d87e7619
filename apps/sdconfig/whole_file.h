// Files that are taken or written whole.
#pragma once

#include <cstddef>
#include <string>

namespace cli {

// Both return what hindered them, for a person, or "".

// path: "-" is standard input. A file of more than `mostBytes` is refused.
std::string readWhole(const std::string& path, std::size_t mostBytes, std::string& text);

// Puts a file for the user's eyes alone in the place of what was there, whole or not at all.
std::string writeWhole(const std::string& path, const std::string& text);

}  // namespace cli
