#include "trail/files.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <map>
#include <optional>
#include <string_view>
#include <utility>

#include "base/folder_listing.h"

namespace sd::trail {

namespace {

constexpr std::string_view kBeginning = "trail-";
constexpr std::string_view kEnding = ".jsonl";
constexpr std::string_view kPacked = ".zst";
constexpr std::size_t kDigits = 12;

std::optional<RotatedFile> rotatedOf(const std::string& name) {
    RotatedFile file{name};
    if (name.compare(0, kBeginning.size(), kBeginning) != 0) return std::nullopt;
    (void)std::from_chars(name.data() + kBeginning.size(), name.data() + name.size(), file.first);
    if (file.first == 0 || file.first == UINT64_MAX) return std::nullopt;  // no entry's: readers begin at either
    file.isPacked = name == packedName(rotatedName(file.first));
    return file.isPacked || name == rotatedName(file.first) ? std::optional(file) : std::nullopt;
}

std::string kindOf(mode_t mode) {
    if (S_ISFIFO(mode)) return "is a pipe";
    if (S_ISDIR(mode)) return "is a folder";
    return S_ISSOCK(mode) ? "is a socket" : "is a device";
}

std::string distrustOf(int folder, const struct stat& status) {
    struct stat owner {};
    if (!S_ISREG(status.st_mode)) return kindOf(status.st_mode);
    if (::fstat(folder, &owner) != 0) return reasonOf("its folder can't be looked at", errno);
    if (status.st_uid != owner.st_uid) return "belongs to the user " + std::to_string(status.st_uid);
    return (status.st_mode & (S_IWGRP | S_IWOTH)) != 0 ? "is writable by others" : "";
}

}  // namespace

std::string reasonOf(const char* what, int failure) {
    return std::string(what) + ": " + std::strerror(failure);
}

std::string rotatedName(std::uint64_t first) {
    const std::string digits = std::to_string(first);
    std::string name(kBeginning);
    if (digits.size() < kDigits) name.append(kDigits - digits.size(), '0');
    return name.append(digits).append(kEnding);
}

std::string packedName(const std::string& rotated) {
    return rotated + std::string(kPacked);
}

UniqueFd openFolder(const std::string& path) {
    return UniqueFd(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

std::vector<RotatedFile> listRotated(int folder) {
    FolderListing list(folder);
    std::map<std::uint64_t, RotatedFile> found;
    while (const char* const name = list.next()) {
        std::optional<RotatedFile> file = rotatedOf(name);
        if (!file) continue;
        const auto [at, isNew] = found.emplace(file->first, *file);
        if (!isNew && !file->isPacked) at->second = std::move(*file);
    }
    std::vector<RotatedFile> files;
    files.reserve(found.size());
    for (auto& [first, file] : found) files.push_back(std::move(file));
    return files;
}

OpenedFile openFile(int folder, const std::string& name, int flags) {
    OpenedFile opened;
    UniqueFd file(::openat(folder, name.c_str(), flags | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK | O_NOCTTY, 0600));
    if (!file) {
        opened.isAbsent = errno == ENOENT;
        opened.isDistrusted = errno == ELOOP || errno == ENXIO || errno == EISDIR;
        if (opened.isDistrusted)
            opened.problem = errno == ELOOP ? "is a link" : errno == ENXIO ? "is a pipe or a socket" : "is a folder";
        else if (!opened.isAbsent)
            opened.problem = reasonOf("can't be opened", errno);
        return opened;
    }
    if (::fstat(file.get(), &opened.status) != 0) {
        opened.problem = reasonOf("can't be looked at", errno);
    } else {
        opened.problem = distrustOf(folder, opened.status);
        opened.isDistrusted = !opened.problem.empty();
    }
    if (opened.problem.empty()) opened.file = std::move(file);
    return opened;
}

}  // namespace sd::trail
