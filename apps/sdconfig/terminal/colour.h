// Colour, for people at a terminal alone.
#pragma once

#include <string>

namespace cli {

enum class Colour { Good, Bad, Name, Faint };

// `word` in that colour where standard output is a terminal that shows some, unless NO_COLOR is set.
std::string coloured(const std::string& word, Colour colour);

}  // namespace cli
