// The files of a trail, on their way into a backup.
#pragma once

#include <string>
#include <vector>

#include "apps/sdconfig/terminal/interruption.h"

namespace cli {

// Whether a trail has files of that name.
bool isTrailFile(const std::string& name);

// Copies the trail of the folder into another one, up to its last whole line, while the service goes on writing. names:
// those of the files, the oldest first. Returns what hindered it, or "".
std::string copyTrail(const std::string& folder, const std::string& target, const Interruption& interruption,
                      std::vector<std::string>& names);

}  // namespace cli
