// A policy as a person sets it.
#pragma once

#include <string>

namespace apps {

struct Policy {
    std::string value;  // "": it sets no value
    int priority;
};

// A policy of the machine, and where it stands.
struct MachinePolicy {
    std::string uri;  // as the file spells it
    Policy policy;
    std::string file;
    int line;
    std::string description;  // "": none

    std::string place() const { return file + ", line " + std::to_string(line); }
};

}  // namespace apps
