// The files of a trail in their folder: trail.jsonl, which is written, and those before it, each named by the number of
// its first entry, trail-000000000001.jsonl, with ".zst" once it is packed.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <string>
#include <vector>

#include "base/unique_fd.h"

namespace sd::trail {

inline constexpr char kCurrentFile[] = "trail.jsonl";
inline constexpr char kTornFile[] = "trail.torn";  // what was cut off the current one

struct RotatedFile {
    std::string name;
    std::uint64_t first = 0;
    bool isPacked = false;
};

std::string rotatedName(std::uint64_t first);
std::string packedName(const std::string& rotated);

// Those before the current one, the oldest first. Where one is there in both forms, that which is not packed.
std::vector<RotatedFile> listRotated(int folder);

// Opens a folder to look for its files; none where it can't be, with errno set.
UniqueFd openFolder(const std::string& path);

// A file that is there. One of another kind, of another user than the folder, or that others may write, is not opened,
// and `problem` says so: "is a pipe". It waits for nobody.
struct OpenedFile {
    UniqueFd file;
    struct stat status {};
    std::string problem;  // "" for one that is open or absent
    bool isAbsent = false;
    bool isDistrusted = false;  // it is not ours to take; else nobody knows what it is
};
OpenedFile openFile(int folder, const std::string& name, int flags);

// What errno says: "can't be read: Permission denied".
std::string reasonOf(const char* what, int failure);

}  // namespace sd::trail
