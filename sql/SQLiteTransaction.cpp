#include "sql/SQLiteTransaction.h"

#include <sqlite3.h>

#include "sql/SQLiteDatabase.h"
#include "sql/SQLiteStatement.h"

namespace sd::data {

SQLiteTransaction::SQLiteTransaction(SQLiteDatabase& db)
    : mDb(db), mBegun(SQLiteStatement(db, "BEGIN IMMEDIATE").executeCommand()) {}

SQLiteTransaction::~SQLiteTransaction() {
    if (isActive()) SQLiteStatement(mDb, "ROLLBACK").executeCommand();
}

bool SQLiteTransaction::isActive() const {
    return mBegun && sqlite3_get_autocommit(mDb.handle()) == 0;
}

bool SQLiteTransaction::commit() {
    return isActive() && SQLiteStatement(mDb, "COMMIT").executeCommand();
}

}  // namespace sd::data
