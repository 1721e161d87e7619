// Which data folder the running service serves.
#pragma once

#include <optional>
#include <string>

#include "apps/data/finding.h"

namespace apps {

// Where the service of this environment has its databases open, as /proc tells; "" where none runs or it can't be told.
// Where systemd listens in its place, a call starts it.
std::string servedFolder();

// That the running service's data was removed, moved or replaced beneath it: it has the files open, and refuses every
// change. `next` ends where the words on a restart of the service belong.
std::optional<Finding> displacedData();

// Whether both paths lead to one folder.
bool isSameFolder(const std::string& one, const std::string& other);

}  // namespace apps
