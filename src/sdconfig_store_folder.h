// Where the data of this process lies.
#pragma once

#include <string>

namespace sd {

inline constexpr char kConfigFile[] = "sdconfig.db";
inline constexpr char kPolicyFile[] = "dmhelper.db";

// Settles the data path, once a process, where none was told (SDConfig::setDataPath). It is the application's data
// folder; but a host of an earlier version that told none had its data in the folder above, and where that alone holds
// data, that is the path from now on. A line of level 6 names both then. Makes nothing.
//
// False where both hold data, for nobody can say which is meant; a line of level 7 has told what to do. A path that is
// told later counts all the same.
bool settleDataPath();

// Where the stores open their databases, in UTF-8: the settled path, made where it is missing and was not told; or one
// at which nothing can be opened.
std::string storeFolder();

}  // namespace sd
