// A folder of one's own for a while.
#pragma once

#include <string>

namespace apps {

// Of mode 0700; removed at the end with everything in it.
class TemporaryFolder {
public:
    // start: the path up to the six characters that make it a new one.
    explicit TemporaryFolder(const std::string& start);
    ~TemporaryFolder();
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    const std::string& path() const { return mPath; }  // "", with errno, where it could not be made

    // Leaves what stands under the path to others.
    void release() { mPath.clear(); }

private:
    std::string mPath;
};

}  // namespace apps
