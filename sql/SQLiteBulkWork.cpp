#include "sql/SQLiteBulkWork.h"

#include "sql/SQLiteDatabase.h"

namespace sd::data {

namespace {

constexpr SQLiteDatabase::Tuning kBulk{1024, 100};

}  // namespace

SQLiteBulkWork::SQLiteBulkWork(SQLiteDatabase& db) : mDb(db) {
    mDb.tune(kBulk);
}

SQLiteBulkWork::~SQLiteBulkWork() {
    mDb.tune(SQLiteDatabase::kUsual);
}

}  // namespace sd::data
