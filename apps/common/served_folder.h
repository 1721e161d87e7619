// Which data folder the running service serves.
#pragma once

#include <string>

namespace apps {

// Where the service of this environment has its databases open, as /proc tells; "" where none runs or it can't be told.
// Where systemd listens in its place, a call starts it.
std::string servedFolder();

// Whether the running service's databases were removed beneath it: it has them open, and refuses every change.
bool isServedDataGone();

// Whether both paths lead to one folder.
bool isSameFolder(const std::string& one, const std::string& other);

}  // namespace apps
