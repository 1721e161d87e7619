// Where a backup may be restored.
#pragma once

#include <string>

#include "apps/sdconfig/terminal/messages.h"

namespace cli {

// Why the folder can't be replaced, or made where there is none. force: it may be a data folder with something in it.
Problem unfitPlace(const std::string& folder, bool force);

}  // namespace cli
