#include "sql/SQLiteStatement.h"

#include <new>

#include "platform/velmarlog/log_line.h"
#include "sql/SQLiteDatabase.h"
#include "sql/sqlite_api.h"

namespace sd::data {

namespace {
constexpr char kTag[] = "DMS-SQLiteStatement";
constexpr char kSource[] = "sql/SQLiteStatement";

int unlessMemoryRanOut(int result) {
    if (result == SQLITE_NOMEM) throw std::bad_alloc();
    return result;
}
}  // namespace

SQLiteStatement::SQLiteStatement(SQLiteDatabase& db, const std::string& sql) : mDb(db), mSql(sql), mHandle(nullptr) {}

int SQLiteStatement::prepare() {
    if (!mDb.handle()) {
        LOG(7, AT "sqlite3_prepare_v2 failed: no handle", HERE);
        return 1;
    }
    const char* tail = nullptr;
    // SQLite saves a copy of the text when the length counts its final zero byte.
    const int length = static_cast<int>(mSql.size() + 1);
    const int result = sqlite().prepare(mDb.handle(), mSql.c_str(), length, &mHandle, &tail);
    if (result != SQLITE_OK)
        LOG(7, AT "sqlite3_prepare_v2 failed (%i)\n%s\n%s", HERE, result, mSql.c_str(), sqlite().errmsg(mDb.handle()));
    (void)unlessMemoryRanOut(result);
    if (tail && *tail != '\0') {
        LOG(7, AT "sqlite3_prepare_v2 failed: tail:%s", HERE, tail);
        return 1;
    }
    return result;
}

int SQLiteStatement::step() {
    if (!mHandle) {
        LOG(7, AT "step failed: no statement", HERE);
        return 0;
    }
    const int result = sqlite().step(mHandle);
    if (result != SQLITE_ROW && result != SQLITE_DONE)
        LOG(7, AT "sqlite3_step failed (%i)\nQuery - %s\nError - %s", HERE, result, mSql.c_str(),
            sqlite().errmsg(mDb.handle()));
    return unlessMemoryRanOut(result);
}

void SQLiteStatement::finalize() {
    if (!mHandle) return;
    sqlite().finalize(mHandle);
    mHandle = nullptr;
}

void SQLiteStatement::reset() {
    if (mHandle) sqlite().reset(mHandle);
}

int SQLiteStatement::changes() const {
    return mHandle ? sqlite().changes(mDb.handle()) : 0;
}

bool SQLiteStatement::executeCommand() {
    if (!mHandle && prepare() != 0) {
        LOG(7, AT "executeCommand failed: prepare failed", HERE);
        return false;
    }
    bool done = false;
    {
        const SQLiteFinalizer finalizer(*this);
        done = step() == SQLITE_DONE;
    }
    if (!done) LOG(7, AT "executeCommand failed: step failed", HERE);
    return done;
}

int SQLiteStatement::bindText(int index, const std::string& value) {
    return unlessMemoryRanOut(
        sqlite().bindText(mHandle, index, value.data(), static_cast<int>(value.size()), SQLITE_TRANSIENT));
}

int SQLiteStatement::bindInt(int index, int value) {
    return sqlite().bindInt(mHandle, index, value);
}

int SQLiteStatement::getColumnInt(int column) {
    return mHandle ? sqlite().columnInt(mHandle, column) : 0;
}

std::string SQLiteStatement::getColumnText(int column) {
    if (!mHandle) return "";
    const unsigned char* text = sqlite().columnText(mHandle, column);
    if (!text) (void)unlessMemoryRanOut(sqlite().errcode(mDb.handle()));
    return text ? reinterpret_cast<const char*>(text) : "";
}

}  // namespace sd::data
