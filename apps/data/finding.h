// What is wrong in a data folder, and what to do about it.
#pragma once

#include <optional>
#include <string>

namespace apps {

struct Finding {
    std::string file;                               // the path of the file or the folder
    std::string what;                               // for a person, with the path or the key
    std::string next;                               // what to do about it
    std::optional<std::string> key = std::nullopt;  // of the row, where it is about one
    bool refusesStart = false;                      // whether no service starts on the folder as it is
};

}  // namespace apps
