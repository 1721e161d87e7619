// The words of a description in the language of whoever reads them.
#pragma once

#include <string>
#include <vector>

#include "descriptions/description.h"

namespace sd {

// The locales that the environment asks for, the first one first: "de_AT", "de"; none for "C".
std::vector<std::string> wantedLocales();

// Each word in the first of the locales that has it, else as the description has it itself.
KeyWords wordsIn(const std::vector<std::string>& locales, const KeyDescription& description);

}  // namespace sd
