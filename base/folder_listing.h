// The names in a folder.
#pragma once

#include <dirent.h>
#include <fcntl.h>

#include <cerrno>
#include <memory>
#include <string>

#include "base/unique_fd.h"

namespace sd {

class FolderListing {
public:
    // It is opened anew, as a descriptor has one place in its list of names. Where that fails the object is false, has
    // no name, and leaves errno to tell why.
    explicit FolderListing(int folder) : FolderListing(folder, ".") {}
    explicit FolderListing(const std::string& path) : FolderListing(AT_FDCWD, path.c_str()) {}

    explicit operator bool() const { return mList != nullptr; }

    // The next name, "." and ".." among them, valid until the next call. Null where no more can be read; errno is 0 at
    // the end.
    const char* next() {
        if (!mList) return nullptr;
        errno = 0;
        const dirent* const entry = ::readdir(mList.get());  // NOLINT(concurrency-mt-unsafe): a list of our own
        return entry ? entry->d_name : nullptr;
    }

private:
    FolderListing(int place, const char* name) : mList(nullptr, ::closedir) {
        UniqueFd folder(::openat(place, name, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (folder) mList.reset(::fdopendir(folder.get()));
        if (mList) (void)folder.release();
    }

    std::unique_ptr<DIR, int (*)(DIR*)> mList;
};

}  // namespace sd
