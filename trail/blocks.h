// A file of the trail as blocks of bytes, from its beginning or from its end.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "base/unique_fd.h"

namespace sd::trail {

class Blocks {
public:
    virtual ~Blocks() = default;
    Blocks() = default;
    Blocks(const Blocks&) = delete;
    Blocks& operator=(const Blocks&) = delete;

    // Reads the block after the place, and moves behind it. An empty one is the end, or a problem.
    virtual std::string next() = 0;
    // Reads the block before the place, and moves to where it begins.
    virtual std::string previous() = 0;

    // Where it is: at an offset in the file. One that came from place() may be set.
    std::uint64_t place() const { return mPlace; }
    void setPlace(std::uint64_t place) { mPlace = place; }
    // Why no more can be read; "" where that is the end.
    const std::string& problem() const { return mProblem; }

protected:
    std::uint64_t mPlace = 0;
    std::string mProblem;
};

// Of a file that is read as it is; what is appended meanwhile is read, too.
std::unique_ptr<Blocks> plainBlocks(int file);
// Of a packed file (packed.h).
std::unique_ptr<Blocks> packedBlocks(int file);

}  // namespace sd::trail
