#include "apps/sdconfig/backup/restore_place.h"

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "apps/data/data_check.h"
#include "apps/data/data_folder_lock.h"
#include "apps/sdconfig/backup/folder_swap.h"

namespace cli {

namespace {

namespace fs = std::filesystem;

// Whoever owns a folder decides what stands in it. The superuser does so anyway.
bool isSomebodyElses(const std::string& folder) {
    struct stat status {};
    return ::stat(folder.c_str(), &status) == 0 && status.st_uid != 0 && status.st_uid != ::geteuid();
}

Problem unfitContent(const std::string& folder, bool force) {
    if (!holdsAnything(folder)) return {};
    if (!apps::isDataFolder(folder))
        return {folder + " is not empty and no data folder: it has neither a database nor a key ring",
                "name another one"};
    if (!force)
        return {folder + " is not empty", "name another folder, or say --force to replace it and keep it beside"};
    return {};
}

}  // namespace

Problem unfitPlace(const std::string& folder, bool force) {
    const char* const kRestoreAsThat = "restore it as that user";
    if (const std::string parent = fs::path(folder).parent_path(); isSomebodyElses(parent))
        return {parent + " belongs to another user", kRestoreAsThat};
    struct stat status {};
    if (::lstat(folder.c_str(), &status) != 0) return {};
    if (!S_ISDIR(status.st_mode)) return {folder + " is not a folder", "name another one"};
    // The files made here would be ours, and the service of the other user could not use them.
    if (status.st_uid != ::geteuid()) return {folder + " belongs to another user", kRestoreAsThat};
    if (const auto user = apps::usedBy(folder)) return {user->what, user->next};
    return unfitContent(folder, force);
}

}  // namespace cli
