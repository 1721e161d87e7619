// Where the service keeps its data when nobody says otherwise.
#pragma once

#include <sys/types.h>

#include <string>

namespace apps {

// The user's data folder of the application "sdconfig", which becomes this process's application name: in
// $XDG_DATA_HOME, else in ~/.local/share. Relative paths count for nothing, and where HOME names no folder the system's
// list of users does. "" where that has none either. Root's own service has a folder of the system.
std::string defaultDataFolder();

// Where the running service of this environment was told to keep its data: by its command line, or its environment.
std::string dataFolderOf(pid_t service);

}  // namespace apps
