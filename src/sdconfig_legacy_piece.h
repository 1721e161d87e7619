// How the pieces of a secure value are called in the table of version 2.
#pragma once

#include <array>
#include <cstdio>
#include <string>

namespace sd {

// More than these are not read: 2048 bytes of a value.
inline constexpr int kMaxLegacyPieces = 64;

// The key of a piece's row; cut at 255 characters, as it always was.
inline std::string legacyPieceKey(const std::string& name, int piece) {
    std::array<char, 256> key;
    std::snprintf(key.data(), key.size(), "%s@@%d", name.c_str(), piece);
    return key.data();
}

}  // namespace sd
