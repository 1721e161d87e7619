// Puts a folder that is ready in the place of another, so that the one or the other stands there at any moment.
#pragma once

#include <string>

#include "apps/sdconfig/terminal/messages.h"

namespace cli {

struct FolderSwap {
    Problem problem;  // nothing was changed
    std::string old;  // where the folder that was there is kept; "": there was none, or an empty one
};

// Whether the folder holds anything but the lock file of a service that ran there.
bool holdsAnything(const std::string& folder);

// Both folders have to be on one file system. No service gets at `place` meanwhile.
FolderSwap putInPlace(const std::string& ready, const std::string& place);

}  // namespace cli
