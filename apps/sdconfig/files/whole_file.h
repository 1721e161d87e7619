// Files that are taken or written whole.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>
#include <string_view>

#include "apps/common/descriptor.h"

namespace cli {

// A file for the user's eyes alone, written beside its place and put there whole. Its operations tell of a failure in
// errno. Removed at the end where it was not put in its place.
class UnfinishedFile {
public:
    explicit UnfinishedFile(const std::string& target);
    ~UnfinishedFile();
    UnfinishedFile(const UnfinishedFile&) = delete;
    UnfinishedFile& operator=(const UnfinishedFile&) = delete;

    bool write(std::string_view bytes);
    bool setMode(mode_t mode);

    // Keep: fails with EEXIST where something stands in the place.
    enum class Existing { Replace, Keep };
    bool putInPlace(Existing existing);

private:
    const std::string mTarget;
    std::string mPath;
    const apps::Descriptor mFile;
    const int mFailure;  // why it could not be made, as errno
    bool mInPlace = false;
};

// They return what hindered them, for a person, or "".

// path: "-" is standard input. A file of more than `mostBytes` is refused.
std::string readWhole(const std::string& path, std::size_t mostBytes, std::string& text);

// Makes the path that of the file that is to be written: the one that a link stands for, absolute. Only a regular file
// may stand there. Links are followed that the caller or root made: in a folder where everybody may make one, another
// user's would choose the file that is overwritten.
std::string resolveTarget(std::string& path);

// Puts a file in the place of what was there, whole or not at all: with the mode of that one where it was the caller's
// own and that is kept, else for the user's eyes alone.
enum class Mode { Kept, Private };
std::string writeWhole(const std::string& path, const std::string& text, Mode mode = Mode::Kept);

}  // namespace cli
