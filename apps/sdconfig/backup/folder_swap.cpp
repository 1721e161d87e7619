#include "apps/sdconfig/backup/folder_swap.h"
#include "apps/common/descriptor.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>

#include "apps/data/data_files.h"
#include "apps/data/data_folder_lock.h"
#include "apps/sdconfig/files/dated_name.h"
#include "apps/sdconfig/files/whole_file.h"

namespace cli {

namespace {

namespace fs = std::filesystem;

bool rename(const std::string& from, const std::string& to, unsigned flags) {
    return ::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), flags) == 0;
}

// Renames the folder to the first free name of old data of `place`. Returns the name, or "" with errno set.
std::string renameToOld(const std::string& folder, const std::string& place) {
    for (int count = 1; count <= kMostDatedNames; ++count) {
        std::string path = datedName(place, count) + ".old";
        if (rename(folder, path, RENAME_NOREPLACE)) return path;
        if (errno != EEXIST) return "";
    }
    return "";
}

Problem unreplaced(const std::string& place) {
    if (errno == EEXIST) return {place + " was made meanwhile", "repeat it"};
    return {place + " can't be replaced: " + std::strerror(errno),
            "restore into a new folder on a common file system, and move that"};
}

// The ready folder gets the old one's name before the two change places: whatever ends this process, old data never
// stands under a name of something unfinished.
FolderSwap exchange(const std::string& ready, const std::string& place) {
    std::string old = renameToOld(ready, place);
    if (!old.empty() && rename(old, place, RENAME_EXCHANGE)) return {{}, std::move(old)};
    Problem problem = unreplaced(place);
    if (!old.empty()) (void)rename(old, ready, RENAME_NOREPLACE);
    return {std::move(problem), ""};
}

bool isTrace(const fs::path& name) {
    return std::find(apps::kTraceFiles.begin(), apps::kTraceFiles.end(), name) != apps::kTraceFiles.end();
}

// A folder that held nothing is not kept.
void dropIfEmpty(std::string& old) {
    std::error_code ignored;
    if (old.empty() || holdsAnything(old)) return;
    fs::remove_all(old, ignored);
    old.clear();
}

FolderSwap replace(const std::string& ready, const std::string& place) {
    std::error_code ignored;
    const std::string lockFile = place + "/" + apps::kLockFile;
    const bool hadLockFile = fs::exists(lockFile, ignored);
    apps::DataFolderLock lock;
    if (const auto problem = lock.take(place)) return {{problem->what, problem->next}, ""};
    FolderSwap swap = exchange(ready, place);
    if (swap.problem && !hadLockFile) fs::remove(lockFile, ignored);
    dropIfEmpty(swap.old);
    return swap;
}

}  // namespace

bool holdsAnything(const std::string& folder) {
    std::error_code failure;
    for (fs::directory_iterator entry(folder, failure), end; !failure && entry != end; entry.increment(failure))
        if (!isTrace(entry->path().filename())) return true;
    return static_cast<bool>(failure) && fs::exists(folder, failure);
}

FolderSwap putInPlace(const std::string& ready, const std::string& place) {
    std::error_code ignored;
    FolderSwap swap;
    if (fs::exists(place, ignored))
        swap = replace(ready, place);
    else if (!rename(ready, place, RENAME_NOREPLACE))
        swap.problem = unreplaced(place);
    if (!swap.problem) apps::syncFolder(fs::path(place).parent_path());
    return swap;
}

}  // namespace cli
