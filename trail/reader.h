// Reading the trail, from its beginning on or from its end back, over all its files, while the service writes and
// rotates it or when nobody does. It holds a block of a file at a time and one line, whatever the files are: cut,
// doubled, all zero bytes, a pipe, somebody else's or a GiB without a newline. It checks nothing but the form of each
// line: what the lines prove is verify.h's.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "trail/entry.h"

namespace sd::trail {

// A line; or why a file, or the rest of it, can't be read.
struct Line {
    std::string text;          // without its newline; of one that is too long, and of a file, ""
    std::string file;          // the file's name in the folder
    std::uint64_t number = 0;  // in its file, from 1; 0: not counted, or it is about the file
    Entry entry;
    std::string problem;  // why it is no entry; "" for an entry
};

enum class Order { OldestFirst, NewestFirst };

// A time in the past from which on entries are wanted. Clocks jump: where an entry is of the same start of the machine,
// the clock that nobody sets tells which is older; else UTC as it was then.
struct Since {
    Moment at;

    bool isAfter(const Entry& entry) const {
        return entry.boot == at.boot && !at.boot.empty() ? entry.mono < at.mono : entry.utc < at.utc;
    }
};

// As of now. microseconds: how long ago it was.
Since sinceAgo(std::int64_t microseconds);
// microseconds: as Entry::utc. What is after the present moment is taken for a time to come.
Since sinceUtc(std::int64_t microseconds);

// One thread at a time.
class Reader {
public:
    // folder: the data folder. With `since`, reading goes back from the end to the first entry that is older, and no
    // further; then, if the oldest are wanted first, forward from there, where lines are not counted. So it takes as
    // long as there are entries since then. It relies on entries standing in the order in which they came: what lies
    // before an entry that is older is not looked at. Where UTC was set back for a while during an earlier start of the
    // machine, an entry of that while ends the search.
    Reader(std::string folder, Order order, std::optional<Since> since = std::nullopt);
    ~Reader();
    Reader(const Reader&) = delete;
    Reader& operator=(const Reader&) = delete;

    // Reads the next one. False at the end; with the oldest first a later call goes on with what was written since,
    // over rotations too, which is how to follow a trail: ask again after a while.
    bool next(Line& line);

    // After next() returned false: whether the last line lacks its newline. It is being written, or was not written
    // whole.
    bool isLastLineCut() const;
    // The name of the file that was read last; "" where there was none.
    std::string lastFile() const;
    // How many lines of it were read (with the oldest first, without `since`).
    std::uint64_t lastNumber() const;

private:
    class Forward;
    class Backward;
    std::unique_ptr<Forward> mForward;
    std::unique_ptr<Backward> mBackward;
    std::optional<Since> mSince;
    bool mIsOver = false;  // what is older than `since` was met
};

}  // namespace sd::trail
