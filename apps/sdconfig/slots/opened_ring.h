// The key ring of a data folder, opened by this process to look with.
#pragma once

#include <string>

#include "apps/sdconfig/terminal/messages.h"

namespace cli {

// Has the security layer open the ring of the folder, which it was told: by the slots that open here or, at a terminal,
// by what is typed. Changes nothing, the ring's slots neither. Returns why it is not open.
Problem openRingOf(const std::string& folder);

}  // namespace cli
