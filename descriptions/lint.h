// What is wrong with descriptions, each by itself and all together.
#pragma once

#include <string>
#include <vector>

#include "descriptions/descriptions.h"

namespace sd {

struct DescriptionLint {
    bool isFault;  // it is left out; else it counts, and may not be what was meant
    std::string file;
    DescriptionFault fault;
};

// In the order of the files and of their lines.
std::vector<DescriptionLint> lintDescriptions(const std::vector<Descriptions::ReadFile>& files);

}  // namespace sd
