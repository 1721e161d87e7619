// Where the descriptions of a file stand, without reading them: a look-up among a hundred thousand takes the time of a
// walk over the text.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "descriptions/description.h"

namespace sd {

struct OutlinedDescription {
    std::string_view name;  // as it is written between its quotation marks
    std::string_view text;  // the description, whatever it is
};

struct Outline {
    std::vector<OutlinedDescription> descriptions;  // in the order of the file
    std::optional<DescriptionFault> fault;          // for which nothing of the file counts
};

// text: has to outlive what is returned.
Outline outlineOf(std::string_view text);

// Tells in which line something stands, of things that are asked for in their order.
class LineCounter {
public:
    explicit LineCounter(std::string_view text) : mAt(text.data()) {}
    int lineOf(std::string_view piece);

private:
    const char* mAt;
    int mLine = 1;
};

}  // namespace sd
