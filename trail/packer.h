// Packs the rotated files of a trail, a block at a time, so that whoever has more urgent work does it in between.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "base/unique_fd.h"

namespace sd::trail {

class Packer {
public:
    // folder: outlives this, and is open before it is used.
    explicit Packer(const UniqueFd& folder) : mFolder(folder) {}

    // Packs the next block of the oldest file that is not packed yet. False where nothing is left that can be: then not
    // before look() is there any. A file takes the place of the other once it is on the disk.
    bool step();
    // Says that there may be files to pack, and that some may have gone.
    void look();

private:
    bool begin();
    bool packBlock();
    bool finish();
    bool giveUp();

    const UniqueFd& mFolder;
    bool mIsDone = false;
    std::uint64_t mTried = 0;  // files up to that number were packed since the last look(), or can't be
    std::string mName;         // of the file that is being packed; "": none
    UniqueFd mFrom, mTo;
    std::uint64_t mPlace = 0;
};

// Number of the oldest rotated file that is kept: of `keep` of them, the newest among them. A file's first line names
// the one before it, so that a file which somebody put between them takes nobody's place.
std::uint64_t oldestKept(int folder, const std::string& newest, int keep);
// Removes the rotated files before that one, in any form.
void dropBefore(int folder, std::uint64_t oldest);

}  // namespace sd::trail
