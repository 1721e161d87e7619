#include "trail/blocks.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>

#include "base/shared_library.h"
#include "trail/files.h"
#include "trail/packed.h"

namespace sd::trail {

namespace {

constexpr std::size_t kPlainBytes = std::size_t{64} << 10;

// At most so many bytes from an offset on: fewer at the end of the file alone, or with a problem.
std::string readAt(int file, std::uint64_t at, std::size_t most, std::string& problem) {
    std::string bytes(most, '\0');
    std::size_t size = 0;
    while (size < most) {
        const ssize_t count = ::pread(file, &bytes[size], most - size, static_cast<off_t>(at + size));
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) problem = reasonOf("can't be read", errno);
        if (count <= 0) break;
        size += static_cast<std::size_t>(count);
    }
    bytes.resize(size);
    return bytes;
}

class Plain : public Blocks {
public:
    explicit Plain(int file) : mFile(file) {}

    std::string next() override {
        std::string bytes = readAt(mFile, mPlace, kPlainBytes, mProblem);
        mPlace += bytes.size();
        return bytes;
    }
    std::string previous() override {
        const std::size_t wanted = static_cast<std::size_t>(std::min<std::uint64_t>(mPlace, kPlainBytes));
        std::string bytes = readAt(mFile, mPlace - wanted, wanted, mProblem);
        if (bytes.size() < wanted) return fail("was cut while it was read");
        mPlace -= wanted;
        return bytes;
    }

private:
    std::string fail(const char* problem) {
        if (mProblem.empty()) mProblem = problem;
        return "";
    }

    int mFile;
};

class Packed : public Blocks {
public:
    explicit Packed(int file) : mFile(file) {}

    std::string next() override {
        std::size_t size = 0;
        std::string lines = unpack(mPlace, kPackedBlockBytesMax, size);
        mPlace += size;
        return lines;
    }
    std::string previous() override {
        if (mPlace == 0) return "";
        const std::string mark =
            readAt(mFile, mPlace - std::min<std::uint64_t>(mPlace, kMarkBytes), kMarkBytes, mProblem);
        const std::optional<std::size_t> size = sizeByMark(mark);
        if (!size || *size > mPlace) return fail("has a damaged block");
        std::size_t found = 0;
        std::string lines = unpack(mPlace - *size, *size, found);
        if (!lines.empty() && found != *size) return fail("has a damaged block");
        mPlace -= *size;
        return lines;
    }

private:
    std::string fail(const std::string& problem) {
        if (mProblem.empty()) mProblem = problem;
        return "";
    }
    std::string unpack(std::uint64_t at, std::size_t most, std::size_t& size) {
        const std::string bytes = readAt(mFile, at, most, mProblem);
        std::string lines;
        if (bytes.empty()) return "";
        try {
            return unpackBlock(bytes, lines, size) ? lines : fail("has a damaged block");
        } catch (const LibraryFailure& failure) {
            return fail(std::string("can't be unpacked: ") + failure.what());
        }
    }

    int mFile;
};

}  // namespace

std::unique_ptr<Blocks> plainBlocks(int file) {
    return std::make_unique<Plain>(file);
}

std::unique_ptr<Blocks> packedBlocks(int file) {
    return std::make_unique<Packed>(file);
}

}  // namespace sd::trail
