#include "sql/SQLiteDatabase.h"

#include <sqlite3.h>

#include <cerrno>
#include <cstring>

#include "platform/velmarlog/log_line.h"
#include "sql/SQLiteStatement.h"

namespace sd::data {

namespace {

constexpr char kTag[] = "DMS-SQLiteDatabase";
constexpr char kSource[] = "sql/SQLiteDatabase";

constexpr int kBusyTimeoutMs = 5000;

int db_busy_handler(void* /*connection*/, int count) {
    LOG(6, AT "database busy count %d", HERE, count);
    return 1;
}

}  // namespace

SQLiteDatabase::SQLiteDatabase(const std::string& path) : mHandle(nullptr), mResult(0) {
    open(path);
}

SQLiteDatabase::~SQLiteDatabase() {
    close();
}

void SQLiteDatabase::open(const std::string& path) {
    mResult = sqlite3_open(path.c_str(), &mHandle);
    if (mResult != SQLITE_OK) {
        const int osError = errno;
        LOG(7, AT "SQLiteDatabase: failed to open sqlite3 db:%s, error code = %d", HERE, path.c_str(), mResult);
        LOG(7, AT "error msg is %s", HERE, std::strerror(osError));
        // What sqlite3_open allocated is deliberately not closed: a failed connection is dropped as it is.
        mHandle = nullptr;
        return;
    }

    mResult = sqlite3_busy_handler(mHandle, db_busy_handler, mHandle);
    if (mResult != SQLITE_OK)
        LOG(7, AT "SQLiteDatabase: failed to set busy handler:%s, error code = %d", HERE, path.c_str(), mResult);

    // The time-out replaces the handler: SQLite itself sleeps and retries until the time is up.
    mResult = sqlite3_busy_timeout(mHandle, kBusyTimeoutMs);
    if (mResult == SQLITE_OK)
        LOG(5, AT "SQLiteDatabase: set busy timeout to %d", HERE, kBusyTimeoutMs);
    else
        LOG(7, AT "SQLiteDatabase: failed to set busy timeout:%s, error code = %d", HERE, path.c_str(), mResult);

    // 5 KiB of page cache: a connection's memory matters more here than re-reading a page.
    for (const char* pragma : {"PRAGMA cache_size = -5;", "PRAGMA synchronous = FULL;", "PRAGMA journal_mode = WAL;"})
        sqlite3_exec(mHandle, pragma, nullptr, nullptr, nullptr);
}

bool SQLiteDatabase::executeCommand(const std::string& sql) {
    if (!mHandle) return false;
    return SQLiteStatement(*this, sql).executeCommand();
}

bool SQLiteDatabase::isDetached() const {
    int moved = 0;  // SQLite looks at the path anew, and compares what stands there with the file that it has open
    return mHandle && sqlite3_file_control(mHandle, nullptr, SQLITE_FCNTL_HAS_MOVED, &moved) == SQLITE_OK && moved != 0;
}

int SQLiteDatabase::close() {
    int result = 0;
    if (mHandle) {
        result = sqlite3_close(mHandle);
        mHandle = nullptr;
    }
    mResult = 0;
    return result;
}

}  // namespace sd::data
