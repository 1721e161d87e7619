// A log as it is played: the disk, and the model of what it may hold.
#pragma once

#include <deque>
#include <map>
#include <string>
#include <vector>

#include "tests/torture/power/disk.h"
#include "tests/torture/power/model.h"

namespace power {

class Replay {
public:
    // root: below it all was recorded. model: at the begin.
    Replay(const std::string& root, const std::vector<Entry>& log, Model model = {});

    void apply(const Entry& entry);

    const Disk& disk() const { return mDisk; }
    const Model& model() const { return mModel; }

private:
    const std::string mCleanEnd;
    Disk mDisk;
    Model mModel;
    std::map<std::string, std::deque<Content>> mDone;  // what files written whole will be, one after the other
};

}  // namespace power
