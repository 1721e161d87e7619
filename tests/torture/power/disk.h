// The disk as a power cut leaves it: what was synced, and of the rest as much or as little as the disk liked.
#pragma once

#include <cstdint>
#include <map>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "tests/torture/power/record.h"

namespace power {

struct Entry {
    Kind kind;
    std::uint64_t file;
    std::int64_t number;
    std::string path;
    std::string data;
};

// Throws std::runtime_error where the log is cut or none.
std::vector<Entry> readLog(const std::string& path);

// By path below the root of what was recorded.
using Files = std::map<std::string, std::string>;

class Disk {
public:
    explicit Disk(std::string root) : mRoot(std::move(root)) {}

    // The next call took effect.
    void apply(const Entry& entry);

    // The files as a process saw them.
    Files asSeen() const;

    // The files that a cut at this moment may leave. All that was synced is there. Of what was written to a file since
    // its last sync there is all, nothing, or some: a whole write or a part of it at its begin or end, in sectors of
    // 512 or 4,096 bytes, in whatever order. Of the changes of names since their folder's last sync there are the first
    // few: so a rename may be there before its file's data.
    Files afterCut(std::mt19937_64& random) const;

private:
    struct Change {  // of a file's data: a write, or with no data a truncation
        std::uint64_t at;
        std::string data;
        bool isTruncation;
    };
    struct File {
        std::string seen;
        std::string synced;
        std::vector<Change> pending;
    };
    using Names = std::map<std::string, int>;  // the place of the file among all
    struct Naming {                            // a change of names
        std::string folder;
        Kind kind;
        std::string path;
        std::string to;
        int file;
        bool isExchange;
    };

    int fileOf(const Entry& entry);
    void change(File& file, Change change);
    void rename(const Naming& naming);
    static void apply(const Naming& naming, Names& names);
    static void apply(const Change& change, std::string& content);
    std::string contentAfterCut(const File& file, int mode, std::mt19937_64& random) const;
    Files contentsOf(const Names& names, const std::vector<std::string>& contents) const;

    const std::string mRoot;
    std::vector<File> mFiles;
    std::map<std::uint64_t, int> mByInode;
    Names mSeen;
    Names mSynced;
    std::vector<Naming> mPending;
};

}  // namespace power
