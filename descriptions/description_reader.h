// Reads one description of a file.
#pragma once

#include <optional>
#include <vector>

#include "descriptions/description.h"
#include "descriptions/outline.h"

namespace sd {

// line: the one in which its name stands. Nothing where there are faults, which are added.
std::optional<KeyDescription> readDescription(const OutlinedDescription& outlined, int line,
                                              std::vector<DescriptionFault>& faults);

// The name of an outlined description as it is meant; nothing where it is none.
std::optional<std::string> nameOf(const OutlinedDescription& outlined);

}  // namespace sd
