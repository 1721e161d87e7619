#include "src/sdconfig_trail_slots.h"

#include "sql/SQLiteDatabase.h"
#include "sql/SQLiteStatement.h"
#include "trail/writer.h"

namespace sd {

namespace {

using data::SQLiteStatement;

// The pages of a change and of its slot: what has no room would be written before the commit, and again with it.
constexpr int kCacheKiB = 40;

}  // namespace

std::vector<std::string> TrailSlots::read() {
    if (!mDatabase.handle()) return {};
    mDatabase.tune({kCacheKiB, data::SQLiteDatabase::kUsual.logPages});
    SQLiteStatement table(mDatabase,
                          std::string("SELECT 1 FROM sqlite_master WHERE type='table' AND name='") + kTrailTable + "'");
    const data::SQLiteFinalizer tableFinalizer(table);
    mHasTable = table.prepare() == 0 && table.step() == SQLiteStatement::kRow;
    std::vector<std::string> slots;
    SQLiteStatement rows(mDatabase, std::string("SELECT value FROM ") + kTrailTable + " WHERE id>=0 AND id<" +
                                        std::to_string(trail::kSlots));
    if (!mHasTable || rows.prepare() != 0) return slots;
    const data::SQLiteFinalizer rowsFinalizer(rows);
    while (rows.step() == SQLiteStatement::kRow) slots.push_back(rows.getColumnText(0));
    return slots;
}

void TrailSlots::write(int slot, const std::string& lines) {
    mIsTableMade =
        mHasTable || mDatabase.executeCommand(std::string("CREATE TABLE IF NOT EXISTS ") + kTrailTable + kTrailColumns);
    SQLiteStatement insert(mDatabase, std::string("INSERT OR REPLACE INTO ") + kTrailTable + "(id,value) VALUES(?,?)");
    if (!mIsTableMade || insert.prepare() != 0) return;
    const data::SQLiteFinalizer finalizer(insert);
    insert.bindInt(1, slot);
    insert.bindText(2, lines);
    insert.executeCommand();
}

}  // namespace sd
