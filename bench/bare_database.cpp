#include "bench/bare_database.h"

#include <sqlite3.h>

#include "bench/process.h"

namespace bench {

BareDatabase::BareDatabase(const std::string& path) {
    require(sqlite3_open(path.c_str(), &mHandle) == SQLITE_OK, path.c_str());
    for (const char* sql : {"PRAGMA cache_size = -5", "PRAGMA synchronous = FULL", "PRAGMA journal_mode = WAL",
                            "CREATE TABLE IF NOT EXISTS bench(id INTEGER PRIMARY KEY AUTOINCREMENT,"
                            "key TEXT COLLATE NOCASE UNIQUE ON CONFLICT FAIL,value TEXT)"})
        run(sql);
}

BareDatabase::~BareDatabase() {
    sqlite3_close(mHandle);
}

std::string BareDatabase::run(const std::string& sql, std::initializer_list<std::string> parameters) {
    sqlite3_stmt* statement = nullptr;
    require(
        sqlite3_prepare_v2(mHandle, sql.c_str(), static_cast<int>(sql.size() + 1), &statement, nullptr) == SQLITE_OK,
        sql.c_str());
    int index = 0;
    for (const std::string& parameter : parameters)
        sqlite3_bind_text(statement, ++index, parameter.data(), static_cast<int>(parameter.size()), SQLITE_TRANSIENT);
    std::string text;
    while (sqlite3_step(statement) == SQLITE_ROW)
        if (const auto* column = sqlite3_column_text(statement, 0)) text = reinterpret_cast<const char*>(column);
    require(sqlite3_finalize(statement) == SQLITE_OK, sql.c_str());
    return text;
}

void BareDatabase::insert(const std::string& key, const std::string& value) {
    run("INSERT OR REPLACE INTO bench (key,value) VALUES(?,?)", {key, value});
}

std::string BareDatabase::select(const std::string& key) {
    return run("SELECT value FROM bench WHERE key=? COLLATE NOCASE", {key});
}

void BareDatabase::remove(const std::string& key) {
    run("DELETE FROM bench WHERE key=? COLLATE NOCASE", {key});
}

}  // namespace bench
