// Keys of secure values and policies don't tell upper from lower case, in ASCII alone.
#pragma once

#include <string>

namespace cli {

inline std::string folded(std::string key) {
    for (char& c : key)
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    return key;
}

}  // namespace cli
