// Where the service keeps its data when nobody says otherwise.
#pragma once

#include <sys/types.h>

#include <string>

namespace apps {

// The user's data folder of the application "sdconfig" (base/standard_folders.h). "" where there is none. Root's own
// service has a folder of the system.
std::string defaultDataFolder();

// Where the running service of this environment was told to keep its data: by its command line, or its environment.
std::string dataFolderOf(pid_t service);

}  // namespace apps
