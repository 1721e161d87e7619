// Where the service keeps its data when nobody says otherwise.
#pragma once

#include <string>

namespace apps {

// The application's data folder of the user, for the name "sdconfig", which becomes this process's application name.
// "" where there is none.
std::string defaultDataFolder();

}  // namespace apps
