// Folders whose names a power cut leaves as they are.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "base/folder_listing.h"
#include "base/unique_fd.h"

namespace sd {

// The folder that has the name `path`, which doesn't end in a slash.
inline std::string folderAbove(const std::string& path) {
    const std::size_t slash = path.find_last_of('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

// Makes what was created, renamed and removed in the folder last, where its file system syncs folders. False with
// errno.
inline bool syncFolder(int folder) {
    return ::fsync(folder) == 0 || errno == EINVAL || errno == ENOSYS;
}
inline bool syncFolder(const std::string& path) {
    const UniqueFd folder(::open(path.empty() ? "." : path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return folder && syncFolder(folder.get());
}

// For a folder that was there. Whoever made it may have been killed before its name was synced, which comes before
// anything is put into it: an empty one's is synced now, where that can be done.
inline void syncNameOfEmpty(const std::string& folder) {
    FolderListing list(folder);
    if (!list) return;
    int names = 0;
    while (names <= 2 && list.next()) ++names;
    if (names <= 2) (void)syncFolder(folderAbove(folder));  // "." and ".."
}

}  // namespace sd
