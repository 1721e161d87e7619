// The default data folder. Not for users of the library.
#pragma once

#include <string>
#include <vector>

namespace sd {

// What the system tells of an application's folders, the most specific first; entries may be empty.
struct StandardFolders {
    std::vector<std::string> data;
    std::vector<std::string> home;
    std::string application;
};

// The first data folder that is not empty; else the application's name below the first home folder that is not; below
// "~" where there is none either.
std::string applicationDataPath(const StandardFolders& folders);

}  // namespace sd
