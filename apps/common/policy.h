// A policy as a person sets it.
#pragma once

#include <string>

namespace apps {

struct Policy {
    std::string value;  // "": it sets no value
    int priority;
};

}  // namespace apps
