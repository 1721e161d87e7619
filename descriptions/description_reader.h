// Reads one description of a file.
#pragma once

#include <optional>
#include <vector>

#include "descriptions/description.h"
#include "descriptions/outline.h"

namespace sd {

// lines: of the text that the outline is of. Nothing where there are faults, which are added.
std::optional<KeyDescription> readDescription(const OutlinedDescription& outlined, LineCounter& lines,
                                              std::vector<DescriptionFault>& faults);

// The name of an outlined description as it is meant; nothing where it is none.
std::optional<std::string> nameOf(const OutlinedDescription& outlined);

}  // namespace sd
