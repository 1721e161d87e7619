#include "apps/sdconfig/database_backup.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "apps/common/sqlite_handles.h"
#include "apps/sdconfig/dated_name.h"

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

// Makes an empty file that was not there. Returns its path, or "" with errno set.
std::string createNew(const std::string& database) {
    for (int count = 1; count <= kMostDatedNames; ++count) {
        std::string path = datedName(database, count) + ".backup";
        const int file = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
        if (file < 0 && errno == EEXIST) continue;
        if (file < 0) return "";
        ::close(file);
        return path;
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
    const std::string path = createNew(database);
    if (path.empty()) return {"", "no copy of " + database + " can be made beside it: " + std::strerror(errno)};
    const std::string why = copyInto(source.get(), path);
    if (why.empty()) return {path, ""};
    ::unlink(path.c_str());
    return {"", "no copy of " + database + " can be kept as " + path + ": " + why};
}

}  // namespace cli
