// How types and values of descriptions stand in a program.
#pragma once

#include <string>
#include <string_view>

#include "descriptions/description.h"

namespace keygen {

// The type of a key's values. enumName: what its enum is called, where it has one.
std::string typeOf(const sd::KeyDescription& description, const std::string& enumName);

// The default, as Key::standard takes it; "{}" where there is none.
std::string defaultOf(const sd::KeyDescription& description, const std::string& enumName);

// The range, as Key::range takes it: "{1, 65535}".
std::string rangeOf(const sd::KeyDescription& description);

// The rule of the key's value, or of the items of a list.
const sd::ValueRule& ruleOf(const sd::KeyDescription& description);

std::string quotedLiteral(std::string_view text);

}  // namespace keygen
