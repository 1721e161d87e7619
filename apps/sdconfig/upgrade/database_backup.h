// A copy of a database, kept before it is changed.
#pragma once

#include <string>

namespace cli {

struct Backup {
    std::string path;
    std::string problem;  // for a person, where there is no copy; else ""
};

// Copies the database, with what its write-ahead log holds, to a new file of mode 0600 beside it that has the date in
// its name. There is no copy, and nothing was changed, where the database is in use, can't be written, or the copy
// can't be kept whole.
Backup keepBackup(const std::string& database);

}  // namespace cli
