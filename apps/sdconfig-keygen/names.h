// Names of a program for names of keys.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace keygen {

// A C++ identifier for a piece of a key, or for a value of an enum: what it can't hold is "_", and a keyword gets one
// behind it. text: not empty.
std::string identifierOf(std::string_view text);

// The same with a capital letter, and one for each "_" or "-": of a type.
std::string typeNameOf(std::string_view text);

// Where a key's constant stands. Pieces of a glob that are "*" alone are left out; "any" is a last one.
struct PlaceOfKey {
    std::vector<std::string> namespaces;
    std::string name;
};

PlaceOfKey placeOf(const std::string& key);

}  // namespace keygen
