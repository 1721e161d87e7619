// Waits for changes in folders, whether these are there yet or not.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "base/unique_fd.h"

namespace sd {

// One thread waits; any may wake it up.
class FolderWatch {
public:
    // folders: absolute paths.
    explicit FolderWatch(std::vector<std::string> folders);

    // Makes the watches anew: for the folders, and those above them, that are there now. To be done before each look
    // into them, so that nothing is missed. False where changes can't be told of, as on a network's file system.
    bool arm();

    // Waits until something in the folders changed and then nothing for some milliseconds, or somebody woke it up, or
    // the time is over. Negative: no limit.
    void wait(std::chrono::milliseconds limit);

    void wake() const;

    // Files that somebody has begun to write, and not closed in the second since.
    std::set<std::string> unfinished();

private:
    // A folder that is watched, by what is of interest in it: a name on the way to one of the folders, or all.
    struct Watched {
        std::set<std::string> names;
        std::vector<std::string> folders;  // whose files are there
    };

    bool watch(const std::string& path, Watched what, std::map<int, Watched>& armed) const;
    bool takeEvents();
    bool takeEvent(int id, std::uint32_t kinds, const std::string& name);
    bool waitOnce(std::chrono::milliseconds limit);

    using Clock = std::chrono::steady_clock;

    const std::vector<std::string> mFolders;
    UniqueFd mNotify;
    UniqueFd mWake;
    std::map<int, Watched> mWatched;
    std::map<std::string, Clock::time_point> mUnfinished;
};

}  // namespace sd
