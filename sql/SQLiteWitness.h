// Who writes along with a change, in the same commit.
#pragma once

namespace sd::data {

class SQLiteDatabase;

// Told of the commits of one thread: neither connections nor tables know of it, since their sizes are a contract with
// hosts that were built against earlier versions.
class SQLiteWitness {
public:
    virtual ~SQLiteWitness() = default;

    // The transaction on `db` is about to be committed. What is written to `db` now is stored with it, or not at all.
    // Where this raises std::bad_alloc it is not committed, and afterCommit isn't called.
    virtual void beforeCommit(SQLiteDatabase& db) = 0;

    // What came of that commit.
    virtual void afterCommit(bool isCommitted) = 0;
};

// While it lives, the witness is told of the commits of the thread that made it, and what would be a commit of one
// statement becomes a transaction for its sake. One a thread; `witness` has to outlive it.
class SQLiteWitnessed {
public:
    explicit SQLiteWitnessed(SQLiteWitness& witness);
    ~SQLiteWitnessed();
    SQLiteWitnessed(const SQLiteWitnessed&) = delete;
    SQLiteWitnessed& operator=(const SQLiteWitnessed&) = delete;

    // This thread's witness; null where it has none.
    static SQLiteWitness* current();
};

}  // namespace sd::data
