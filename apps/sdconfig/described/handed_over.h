// A description on its way from the first program to the second, so that one of the two reads the folders.
#pragma once

#include <optional>
#include <string>

#include "descriptions/descriptions.h"

namespace cli {

// Puts it into the environment, where it is short enough for that. excerpt: of the file in which it was found.
void handOverFound(const sd::Descriptions::Found& found, const std::string& excerpt);

// Takes it out, for the key alone. Nothing where there is none, or one that this program, which knows more of it, can't
// take: then the folders tell. Whoever sets the variable could as well go on unchecked.
std::optional<sd::Descriptions::Found> takeHandedOver(const std::string& key);

}  // namespace cli
