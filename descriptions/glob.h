// Names that stand for several keys: in "velmar.printer.*.name", "*" is what stands between two dots.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace sd {

inline constexpr std::size_t kGlobBytesMax = 256;

// Why it is no glob; "" where it is one. A "*" stands for one or more characters, but no dot. Before the first dot
// there is none, so that nothing describes the keys of everybody.
std::string unfitGlob(std::string_view glob);

enum class LetterCase { Ignored, Told };

// Whether it stands for the key.
bool fitsGlob(std::string_view key, std::string_view glob, LetterCase letterCase);

// Whether there is a key that both stand for.
bool doGlobsMeet(std::string_view one, std::string_view other);

// How much of it is said: of two that stand for a key, the one with more of it counts.
std::size_t lettersOf(std::string_view glob);

}  // namespace sd
