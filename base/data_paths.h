// Where the data lies, for the rooms below the facade through which it is told (libsdconfig/sdconfig.h).
#pragma once

#include <string>

namespace sd {

struct DataPaths {
    std::string data;     // the folder of the databases, in the local 8-bit encoding
    bool isTold = false;  // by SDConfig::setDataPath; untold, data is the application's data folder
    std::string velmar;   // the product's data folder
};

// The library's, one in the process; programs ask the facade. No lock: they are told at the start.
DataPaths& dataPaths();

}  // namespace sd
