// trail.jsonl as its writer has it. It is our own only as long as its name leads to the file that we opened, and that
// is as long as we left it.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "base/unique_fd.h"
#include "trail/chain.h"
#include "trail/entry.h"

namespace sd::trail {

class CurrentFile {
public:
    // What an opening found.
    struct Found {
        bool isNew = false;   // there was no such file
        Head head;            // its last sound line; seq 0: it has none
        Entry last;           // that line's entry
        std::string damage;   // what was kept aside, for an entry; "": nothing
        std::string problem;  // why it is not open; "" when it is
    };

    // folder: outlives this, and is open before it is used.
    explicit CurrentFile(const UniqueFd& folder) : mFolder(folder) {}

    // Opens the file, or makes it. What stands behind its last sound line is kept aside in trail.torn and cut away; a
    // file that is none of ours, or has no sound line near its end, becomes trail.torn as it is. unsynced: how many
    // bytes at the end a power cut may have kept in part; what stands from a hole in them on is kept aside, too.
    Found open(const Digest& digest, std::uint64_t unsynced);
    void close();

    bool isOpen() const { return mFile != nullptr; }
    bool isOurs() const;
    std::uint64_t size() const { return mSize; }

    // Appends the lines, or as many of them as there is room for; `appended`: their bytes. "" when that is all, else
    // why not.
    std::string append(std::string_view lines, std::size_t& appended);

    // For a thread that syncs it meanwhile.
    std::shared_ptr<UniqueFd> handle() const { return mFile; }

    // Gives the file the name of a rotated one and closes it. "" when it did, else why not.
    std::string rotate(std::uint64_t lastSeq, std::string& name);

private:
    void adopt(UniqueFd file, const struct stat& status);
    std::string keepTail(std::uint64_t from, bool isHollow);
    std::string setAside();
    std::uint64_t firstSeq() const;

    const UniqueFd& mFolder;
    std::shared_ptr<UniqueFd> mFile;
    dev_t mDevice = 0;
    ino_t mInode = 0;
    std::uint64_t mSize = 0;
};

}  // namespace sd::trail
