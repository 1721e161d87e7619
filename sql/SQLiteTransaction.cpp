#include "sql/SQLiteTransaction.h"

#include <new>

#include "sql/SQLiteDatabase.h"
#include "sql/SQLiteStatement.h"
#include "sql/SQLiteWitness.h"
#include "sql/sqlite_api.h"

namespace sd::data {

// What undoes it is made ready first: where memory runs out meanwhile it still can be done, and no lock is kept.
SQLiteTransaction::SQLiteTransaction(SQLiteDatabase& db)
    : mDb(db),
      mRollback(db, "ROLLBACK"),
      mFinalizer(mRollback),
      mBegun((!db.handle() || mRollback.prepare() == 0) && SQLiteStatement(db, "BEGIN IMMEDIATE").executeCommand()) {}

SQLiteTransaction::~SQLiteTransaction() {
    try {
        if (isActive()) mRollback.step();
    } catch (const std::bad_alloc&) {  // it is undone all the same
    }
}

bool SQLiteTransaction::isActive() const {
    return mBegun && sqlite().getAutocommit(mDb.handle()) == 0;
}

bool SQLiteTransaction::commit() {
    SQLiteWitness* const witness = isActive() ? SQLiteWitnessed::current() : nullptr;
    if (witness) witness->beforeCommit(mDb);
    struct Told {
        SQLiteWitness* const witness;
        bool isCommitted;
        ~Told() {
            if (witness) witness->afterCommit(isCommitted);
        }
    } told{witness, false};
    return told.isCommitted = isActive() && SQLiteStatement(mDb, "COMMIT").executeCommand();
}

}  // namespace sd::data
