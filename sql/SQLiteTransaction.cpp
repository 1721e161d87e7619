#include "sql/SQLiteTransaction.h"

#include "sql/SQLiteDatabase.h"
#include "sql/SQLiteStatement.h"
#include "sql/SQLiteWitness.h"
#include "sql/sqlite_api.h"

namespace sd::data {

// What undoes it is made ready first: where memory runs out meanwhile it still can be done, and no lock is kept.
SQLiteTransaction::SQLiteTransaction(SQLiteDatabase& db)
    : mDb(db),
      mRollback(db, "ROLLBACK"),
      mBegun((!db.handle() || mRollback.prepare() == 0) && SQLiteStatement(db, "BEGIN IMMEDIATE").executeCommand()) {}

SQLiteTransaction::~SQLiteTransaction() {
    if (isActive()) mRollback.step();
    mRollback.finalize();
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
