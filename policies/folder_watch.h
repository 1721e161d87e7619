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

    bool canWake() const { return static_cast<bool>(mWake); }  // false where it could not have a descriptor for that
    void wake() const;

    // Whether something changed since arm(), so that what was read meanwhile may be of two times.
    bool hasNews();

    // Whether somebody had begun to write the file when this is asked, and has not closed it in the second since. Asked
    // after the reading of it, it tells whether what was read may be half of it.
    bool isUnfinished(const std::string& path);

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
    bool dropOverdue();

    using Clock = std::chrono::steady_clock;

    const std::vector<std::string> mFolders;
    UniqueFd mNotify;
    UniqueFd mWake;
    std::map<int, Watched> mWatched;
    std::map<std::string, Clock::time_point> mUnfinished;
    bool mHasNews = false;  // that came while nobody waited
};

}  // namespace sd
