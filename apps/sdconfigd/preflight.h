// What has to hold before the service may answer: it must never serve emptiness in place of data that it can't reach.
#pragma once

#include <array>
#include <string>

#include "apps/data/data_files.h"
#include "apps/data/sqlite_handles.h"

enum class Integrity { ToCheck, Known };

// Has both databases open from its first look at them until close(), by when the stores have them open: where the last
// connection closes, SQLite takes the log's files away, only to make them anew for the next one.
// Each look returns a line for a person, with the path and the reason, or "" when all is well.
class Preflight {
public:
    explicit Preflight(const std::string& dataFolder) : mFolder(dataFolder) {}

    // Opens the databases for writing, looks for damage in them and their logs, and sees to it that sealed rows come
    // with a key ring that can open them, and a ring with tables. Where the integrity is known, it does not look
    // through the databases themselves, which takes most of a start among many keys. Changes no file that is there, and
    // where it refuses leaves none that it made. The security layer must know the folder already.
    std::string check(Integrity integrity);

    // Whether the stores, once opened, have all their tables: a disk that has no room for them is told by this alone.
    std::string checkTables();

    void close() { mDatabases = {}; }

    // Whether check() left a wrapped ring that was still being opened, or can't be.
    bool isRingLocked() const { return mIsRingLocked; }

private:
    // What the databases hold, as far as it decides about the start.
    struct Findings {
        bool sealedRows = false;
        std::string emptied;  // a database that is there but lacks the table of its sealed rows
    };

    std::string pathOf(std::size_t which) const;
    std::string open(std::size_t which);
    std::string checkDatabase(std::size_t which, Integrity integrity, Findings& findings);
    std::string lookInto(std::size_t which, Integrity integrity, Findings& findings);
    std::string checkBoth(Integrity integrity);

    const std::string mFolder;
    bool mIsRingLocked = false;
    std::array<apps::Database, apps::kLayouts.size()> mDatabases;  // null while they are not open
};
