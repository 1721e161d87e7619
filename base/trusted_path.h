// Opens what nobody but its trusted owners can have put there.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <string>

#include "base/unique_fd.h"

namespace sd {

struct TrustedOpening {
    UniqueFd file;          // for reading; open where the path leads to something that can be trusted
    struct stat status {};  // of it
    int failure = 0;        // of the kernel, where it could not be opened
    std::string distrust;   // what can't be trusted, and why: "/etc/x is writable by its group"
    bool isNull = false;    // /dev/null, which is not opened
    bool hasLink = false;   // the way goes through a symbolic link
};

// Root and `owner` are trusted. Each folder on the way from the root folder has to be theirs and writable by nobody
// else, unless what is in it can be replaced by its owner alone, as in /tmp; each link on the way has to be theirs; and
// so does that where the path ends, which is no link and a regular file or a folder that nobody else can write.
// path: absolute.
TrustedOpening openTrusted(const std::string& path, uid_t owner);

// The same of a name in a folder that was opened so. path: the folder's.
TrustedOpening openTrustedIn(const UniqueFd& folder, const std::string& path, const std::string& name, uid_t owner);

}  // namespace sd
