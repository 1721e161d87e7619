#include "apps/sdconfigd/preflight.h"

#include <sqlite3.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <memory>
#include <vector>

#include "platform/sdsecurity/sdsecurity.h"

namespace {

constexpr int kBusyTimeoutMs = 5000;

struct CloseDatabase {
    void operator()(sqlite3* db) const { sqlite3_close(db); }
};
using Database = std::unique_ptr<sqlite3, CloseDatabase>;

std::string makeFolder(const std::filesystem::path& folder) {
    struct stat status {};
    if (::stat(folder.c_str(), &status) == 0)
        return S_ISDIR(status.st_mode) ? "" : folder.string() + " is not a folder";
    if (folder.has_parent_path() && folder.parent_path() != folder)
        if (std::string problem = makeFolder(folder.parent_path()); !problem.empty()) return problem;
    if (::mkdir(folder.c_str(), 0700) == 0 || errno == EEXIST) return "";
    return "can't make the folder " + folder.string() + ": " + std::strerror(errno);
}

std::string problemWith(sqlite3* db, const std::string& path) {
    return "can't open the database " + path + ": " + sqlite3_errmsg(db);
}

// Whether the statement yields a row. Throws nothing; a failure shows in sqlite3_errcode.
bool yieldsRow(sqlite3* db, const std::string& sql) {
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(db, sql.c_str(), -1, &statement, nullptr) != SQLITE_OK) return false;
    const bool row = sqlite3_step(statement) == SQLITE_ROW;
    sqlite3_finalize(statement);
    return row;
}

Database openDatabase(const std::string& path, std::string& problem) {
    sqlite3* opened = nullptr;
    const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE;
    const int result = sqlite3_open_v2(path.c_str(), &opened, flags, nullptr);
    Database db(opened);
    if (result != SQLITE_OK) problem = problemWith(db.get(), path);
    sqlite3_busy_timeout(db.get(), kBusyTimeoutMs);
    return db;
}

bool hasTable(sqlite3* db, const std::string& table) {
    return yieldsRow(db, "SELECT 1 FROM sqlite_master WHERE type = 'table' AND name = '" + table + "'");
}

// Opens the file as the store will, takes the write lock and looks for sealed rows in the table.
std::string checkDatabase(const std::string& path, const std::string& table, bool& sealedRows) {
    std::string problem;
    const Database db = openDatabase(path, problem);
    if (!problem.empty()) return problem;
    if (sqlite3_exec(db.get(), "BEGIN IMMEDIATE", nullptr, nullptr, nullptr) != SQLITE_OK)
        return problemWith(db.get(), path);
    if (hasTable(db.get(), table) && yieldsRow(db.get(), "SELECT 1 FROM " + table + " WHERE value <> '' LIMIT 1"))
        sealedRows = true;
    const int code = sqlite3_errcode(db.get());
    const bool fine = code == SQLITE_OK || code == SQLITE_ROW || code == SQLITE_DONE;
    return fine ? "" : problemWith(db.get(), path);  // closing rolls the empty transaction back
}

}  // namespace

std::string preflight(const std::string& dataFolder) {
    if (std::string problem = makeFolder(dataFolder); !problem.empty()) return problem;

    bool sealedRows = false;
    for (const auto& [file, table] : {std::pair{"/sdconfig.db", "secure_v3"}, {"/dmhelper.db", "dmhelperconfig"}})
        if (std::string problem = checkDatabase(dataFolder + file, table, sealedRows); !problem.empty()) return problem;

    const auto ring = sd::SDSecurity::GetInstance()->CheckKeyRing();
    if (ring.state == sd::SDSecurity::KeyRingState::Broken) return "the key ring can't be used: " + ring.detail;
    if (sealedRows && ring.state == sd::SDSecurity::KeyRingState::Absent)
        return "the databases in " + dataFolder + " hold sealed values but the key ring " + ring.detail +
               " is missing: restore it from the same backup";
    return "";
}

std::string checkTables(const std::string& dataFolder) {
    for (const auto& [file, tables] :
         {std::pair{"/sdconfig.db", std::vector{"dbinfor", "config", "secure", "secure_v3"}},
          {"/dmhelper.db", {"dmhelperconfig"}}}) {
        std::string problem;
        const Database db = openDatabase(dataFolder + file, problem);
        if (!problem.empty()) return problem;
        for (const char* table : tables)
            if (!hasTable(db.get(), table))
                return "the database " + dataFolder + file + " lacks its table " + table +
                       ", which could not be made; is there room on the disk?";
    }
    return "";
}
