// Whether a text fits the description of its key, and the form in which it is stored.
#pragma once

#include <string>

#include "descriptions/description.h"

namespace sd {

struct CheckedValue {
    std::string stored;  // the form that is stored, of a text that fits
    std::string what;    // why it doesn't fit: "is beyond the largest, 65535"; never the text itself; "": it fits
    std::string remedy;  // what to do about it: "write a whole number from 1 to 65535"

    bool fits() const { return what.empty(); }
};

// text: any bytes. An empty one fits every description: it is no value.
CheckedValue checkValue(const KeyDescription& description, const std::string& text);

// Of a part of one: a minimum, a maximum.
CheckedValue checkValue(const ValueRule& rule, const std::string& text);

// Negative, 0 or positive, as one stored value is less than, equal to, or greater than another of its type, which has
// an order.
int compareStored(KeyType type, const std::string& one, const std::string& other);

// What a value may be, for people: "a whole number from 1 to 65535".
std::string inWords(const KeyDescription& description);
std::string inWords(const ValueRule& rule);

}  // namespace sd
