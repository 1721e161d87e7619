#include "base/data_paths.h"

namespace sd {

DataPaths& dataPaths() {
    static DataPaths paths;
    return paths;
}

}  // namespace sd
