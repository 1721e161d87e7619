// Properties that can't be changed.
#pragma once

#include <string>

namespace cli {

// Keys that begin with "ro." keep the first value that they get.
inline bool isReadOnlyKey(const std::string& key) {
    return key.compare(0, 3, "ro.") == 0;
}

}  // namespace cli
