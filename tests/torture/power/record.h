// What power_recorder notes of a process's files, and power_cut reads back: a record a call, in the order in which the
// calls took effect. All whole numbers are the machine's own.
#pragma once

#include <cstdint>

namespace power {

enum class Kind : std::uint32_t {
    Exists,      // before the recording: path; of a file, data; number: 1 for a folder
    Open,        // for writing: path; number: 1 where it emptied the file
    Write,       // path, data; number: the offset
    Truncate,    // path; number: the new size
    Sync,        // of a file: path
    SyncFolder,  // path
    MakeFolder,  // path
    Rename,      // path, data is the new path; number: 1 for an exchange
    Link,        // path of the new name
    Remove,      // path of a file or a folder
    Mark,        // data: what the one who records says
};

struct Record {
    Kind kind;
    std::uint32_t pathLength;
    std::uint64_t file;  // the inode
    std::int64_t number;
    std::uint64_t dataLength;
    // then the path and the data
};

}  // namespace power
