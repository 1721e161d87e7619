// File descriptors as the programs use them.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <string>

#include "base/unique_fd.h"

namespace apps {

using Descriptor = sd::UniqueFd;

// Makes what was created, renamed and removed in the folder last.
inline bool syncFolder(const std::string& path) {
    const Descriptor folder(::open(path.empty() ? "." : path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return folder.get() >= 0 && ::fsync(folder.get()) == 0;
}

}  // namespace apps
