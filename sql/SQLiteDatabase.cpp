#include "sql/SQLiteDatabase.h"

#include <cerrno>
#include <cstring>
#include <exception>

#include "platform/velmarlog/log_line.h"
#include "sql/SQLiteStatement.h"
#include "sql/SQLiteTransaction.h"
#include "sql/sqlite_api.h"

namespace sd::data {

namespace {

constexpr char kTag[] = "DMS-SQLiteDatabase";
constexpr char kSource[] = "sql/SQLiteDatabase";

constexpr int kBusyTimeoutMs = 5000;

int db_busy_handler(void* /*connection*/, int count) {
    LOG(6, AT "database busy count %d", HERE, count);
    return 1;
}

// SQLite's result; `problem` tells why it is not SQLITE_OK.
int connect(const std::string& path, sqlite3*& handle, std::string& problem) {
    try {
        const int result = sqlite().open(path.c_str(), &handle);
        problem = std::strerror(errno);
        return result;
    } catch (const std::exception& failure) {
        problem = failure.what();
        return SQLITE_CANTOPEN;
    }
}

}  // namespace

SQLiteDatabase::SQLiteDatabase(const std::string& path) : mHandle(nullptr), mResult(0) {
    open(path);
}

SQLiteDatabase::~SQLiteDatabase() {
    close();
}

void SQLiteDatabase::open(const std::string& path) {
    std::string problem;
    mResult = connect(path, mHandle, problem);
    if (mResult != SQLITE_OK) {
        LOG(7, AT "SQLiteDatabase: failed to open sqlite3 db:%s, error code = %d", HERE, path.c_str(), mResult);
        LOG(7, AT "error msg is %s", HERE, problem.c_str());
        // What sqlite3_open allocated is deliberately not closed: a failed connection is dropped as it is.
        mHandle = nullptr;
        return;
    }

    mResult = sqlite().busyHandler(mHandle, db_busy_handler, mHandle);
    if (mResult != SQLITE_OK)
        LOG(7, AT "SQLiteDatabase: failed to set busy handler:%s, error code = %d", HERE, path.c_str(), mResult);

    // The time-out replaces the handler: SQLite itself sleeps and retries until the time is up.
    mResult = sqlite().busyTimeout(mHandle, kBusyTimeoutMs);
    if (mResult == SQLITE_OK)
        LOG(5, AT "SQLiteDatabase: set busy timeout to %d", HERE, kBusyTimeoutMs);
    else
        LOG(7, AT "SQLiteDatabase: failed to set busy timeout:%s, error code = %d", HERE, path.c_str(), mResult);

    tune(kUsual);
    for (const char* pragma : {"PRAGMA synchronous = FULL;", "PRAGMA journal_mode = WAL;"})
        sqlite().exec(mHandle, pragma, nullptr, nullptr, nullptr);
}

void SQLiteDatabase::tune(const Tuning& tuning) {
    if (!mHandle) return;
    const std::string pragmas = "PRAGMA cache_size = -" + std::to_string(tuning.cacheKiB) +
                                "; PRAGMA wal_autocheckpoint = " + std::to_string(tuning.logPages) + ";";
    sqlite().exec(mHandle, pragmas.c_str(), nullptr, nullptr, nullptr);
}

bool SQLiteDatabase::executeCommand(const std::string& sql) {
    if (!mHandle) return false;
    return SQLiteStatement(*this, sql).executeCommand();
}

bool SQLiteDatabase::isDetached() const {
    int moved = 0;  // SQLite looks at the path anew, and compares what stands there with the file that it has open
    return mHandle && sqlite().fileControl(mHandle, nullptr, SQLITE_FCNTL_HAS_MOVED, &moved) == SQLITE_OK && moved != 0;
}

bool SQLiteDatabase::isWritable() {
    // The first tells of the database's own file, the lock of its log's.
    return mHandle && sqlite().dbReadonly(mHandle, "main") == 0 && SQLiteTransaction(*this).isActive();
}

int SQLiteDatabase::close() {
    int result = 0;
    if (mHandle) {
        result = sqlite().close(mHandle);
        mHandle = nullptr;
    }
    mResult = 0;
    return result;
}

}  // namespace sd::data
