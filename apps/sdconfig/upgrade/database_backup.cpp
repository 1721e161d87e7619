#include "apps/sdconfig/upgrade/database_backup.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>

#include "apps/common/descriptor.h"
#include "apps/data/sqlite_handles.h"
#include "apps/sdconfig/files/dated_name.h"
#include "apps/sdconfig/files/whole_file.h"

namespace cli {

namespace {

using apps::Database;

Database openExisting(const std::string& path) {
    sqlite3* db = nullptr;
    sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE, nullptr);
    return Database(db);
}

// Takes the database for this connection alone, up to its end: then nobody writes while it is copied. Returns why not.
std::string takeExclusively(sqlite3* db) {
    const int result =
        sqlite3_exec(db, "PRAGMA locking_mode = EXCLUSIVE; BEGIN IMMEDIATE; COMMIT", nullptr, nullptr, nullptr);
    if ((result & 0xff) == SQLITE_BUSY) return "it is in use by another process";
    return result == SQLITE_OK ? "" : sqlite3_errmsg(db);
}

std::string unfinishedName(const std::string& database) {
    return database + ".backup.unfinished";
}

// A copy that was not finished, with its journal.
void removeUnfinished(const std::string& database) {
    const std::string path = unfinishedName(database);
    for (const std::string& file : {path, path + "-journal"}) ::unlink(file.c_str());
}

// Gives the copy the first free name of its own. Returns that, or "" with errno set.
std::string putInPlace(const std::string& unfinished, const std::string& database) {
    for (int count = 1; count <= kMostDatedNames; ++count) {
        std::string path = datedName(database, count) + ".backup";
        if (::renameat2(AT_FDCWD, unfinished.c_str(), AT_FDCWD, path.c_str(), RENAME_NOREPLACE) == 0) return path;
        if (errno != EEXIST) return "";
    }
    return "";
}

std::string copyInto(sqlite3* source, const std::string& path) {
    const Database target = openExisting(path);
    if (sqlite3_backup* const backup = sqlite3_backup_init(target.get(), "main", source, "main")) {
        sqlite3_backup_step(backup, -1);
        if (sqlite3_backup_finish(backup) == SQLITE_OK) return "";
    }
    return sqlite3_errmsg(target.get());
}

}  // namespace

Backup keepBackup(const std::string& database) {
    const Database source = openExisting(database);
    if (std::string why = takeExclusively(source.get()); !why.empty())
        return {"", database + " can't be written: " + why};
    removeUnfinished(database);  // of a process that was killed; the database is ours alone
    const std::string unfinished = unfinishedName(database);
    const int file = ::open(unfinished.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (file < 0) return {"", "no copy of " + database + " can be made beside it: " + std::strerror(errno)};
    ::close(file);
    std::string why = copyInto(source.get(), unfinished);
    const std::string path = why.empty() ? putInPlace(unfinished, database) : "";
    if (why.empty() && path.empty()) why = std::strerror(errno);
    if (!why.empty()) {
        removeUnfinished(database);
        return {"", "no copy of " + database + " can be kept: " + why};
    }
    apps::syncFolder(std::filesystem::path(path).parent_path());
    return {path, ""};
}

}  // namespace cli
