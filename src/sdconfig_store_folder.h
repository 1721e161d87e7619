// Where the stores of this process open their databases.
#pragma once

#include <string>

namespace sd {

inline constexpr char kConfigFile[] = "sdconfig.db";
inline constexpr char kPolicyFile[] = "dmhelper.db";

// The folder that the host told (SDConfig::setDataPath). Untold, it is the application's data folder, made where it is
// missing; but a host of an earlier version that told none had its data in the folder above, and where that alone holds
// data, it is used and becomes the process's data path. Both are named in a line of level 6 then.
//
// Where both hold data nobody can say which is meant: a line of level 7 tells what to do, and the path that comes back
// is one at which nothing can be opened.
//
// UTF-8. Looks once a process, at its first call; what is told later counts all the same. Not for several threads.
std::string storeFolder();

// False where both hold data.
bool isStoreFolderKnown();

}  // namespace sd
