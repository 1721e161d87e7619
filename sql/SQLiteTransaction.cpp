#include "sql/SQLiteTransaction.h"

#include "sql/SQLiteDatabase.h"
#include "sql/SQLiteStatement.h"
#include "sql/SQLiteWitness.h"
#include "sql/sqlite_api.h"

namespace sd::data {

SQLiteTransaction::SQLiteTransaction(SQLiteDatabase& db)
    : mDb(db), mBegun(SQLiteStatement(db, "BEGIN IMMEDIATE").executeCommand()) {}

SQLiteTransaction::~SQLiteTransaction() {
    if (isActive()) SQLiteStatement(mDb, "ROLLBACK").executeCommand();
}

bool SQLiteTransaction::isActive() const {
    return mBegun && sqlite().getAutocommit(mDb.handle()) == 0;
}

bool SQLiteTransaction::commit() {
    SQLiteWitness* const witness = isActive() ? SQLiteWitnessed::current() : nullptr;
    if (witness) witness->beforeCommit(mDb);
    const bool committed = isActive() && SQLiteStatement(mDb, "COMMIT").executeCommand();
    if (witness) witness->afterCommit(committed);
    return committed;
}

}  // namespace sd::data
