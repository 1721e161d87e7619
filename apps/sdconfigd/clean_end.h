// The mark that a service leaves in its data folder when it ends as told.
#pragma once

#include <string>

// It describes the databases and the key ring as they stood when the last connection to them was closed, down to the
// nanosecond of their last change. A start that finds all of that unchanged need not look through the databases for
// damage again; after a kill or a power cut, after damage that SQLite met, and in a folder that was copied, restored,
// upgraded or edited, there is no mark or it disagrees. It tells nothing of bits that change on the disk by themselves:
// that is for `sdconfig check`.
class CleanEndMark {
public:
    explicit CleanEndMark(const std::string& dataFolder);

    // Before the process opens its first database: a mark is left only where SQLite met no damage from then on.
    static void watchForDamage();

    // Whether it is there and tells of the files as they stand; a line of level 5 says so. Not while this process has a
    // database open: closing a file here would give up the locks of that connection.
    bool agrees() const;

    // Has to be done before anything is served: a mark that outlived its time could be trusted one day. Returns a line
    // for a person, or "" when none is there any more, whatever happens to the machine.
    std::string remove() const;

    // Once the stores have the databases open: a mark is written of these alone, and of none that took their place.
    void noteServed();

    // After the last connection is closed. Where it can't be written, something is left over that it can't tell of, or
    // SQLite met damage, there is none: the next start checks everything.
    void write() const;

private:
    const std::string mFolder;
    const std::string mPath;
    std::string mServed;  // the files
};
