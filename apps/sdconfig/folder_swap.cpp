#include "apps/sdconfig/folder_swap.h"

#include <fcntl.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>

#include "apps/common/data_folder_lock.h"
#include "apps/sdconfig/dated_name.h"
#include "apps/sdconfig/whole_file.h"

namespace cli {

namespace {

namespace fs = std::filesystem;

constexpr char kLockFile[] = "sdconfigd.lock";

bool rename(const std::string& from, const std::string& to, unsigned flags) {
    return ::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), flags) == 0;
}

// Gives the old data, which stands under `path` since the exchange, a name that tells what it is.
void keepOld(const std::string& path, const std::string& place, FolderSwap& swap) {
    std::error_code ignored;
    if (!holdsAnything(path)) {
        fs::remove_all(path, ignored);
        return;
    }
    swap.old = datedName(place) + ".old";
    if (rename(path, swap.old, RENAME_NOREPLACE)) return;
    swap.unrenamed = std::strerror(errno);
    swap.old = path;
}

}  // namespace

bool holdsAnything(const std::string& folder) {
    std::error_code failure;
    for (fs::directory_iterator entry(folder, failure), end; !failure && entry != end; entry.increment(failure))
        if (entry->path().filename() != kLockFile) return true;
    return static_cast<bool>(failure) && fs::exists(folder, failure);
}

FolderSwap putInPlace(const std::string& ready, const std::string& place) {
    FolderSwap swap;
    std::error_code failure;
    const bool taken = fs::exists(place, failure);
    apps::DataFolderLock lock;
    if (taken)
        if (const std::string problem = lock.take(place); !problem.empty())
            return {{problem, "see that the folder is free and can be written"}, "", ""};
    if (!rename(ready, place, taken ? RENAME_EXCHANGE : RENAME_NOREPLACE))
        return {{place + " can't be replaced: " + std::strerror(errno),
                 "restore into a new folder on a common file system, and move that"},
                "",
                ""};
    if (taken) keepOld(ready, place, swap);
    syncFolder(fs::path(place).parent_path());
    return swap;
}

}  // namespace cli
