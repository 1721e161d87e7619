// Where a commit carries its entries of the trail: in a row of the database that it changes.
#pragma once

#include <string>
#include <vector>

namespace sd {

namespace data {
class SQLiteDatabase;
}

inline constexpr char kTrailTable[] = "trail";
inline constexpr char kTrailColumns[] = "(id INTEGER PRIMARY KEY,value TEXT)";

// The table "trail" of one database, made with the first commit that carries something: id, the slot's number, and
// value, lines of the trail. What a kill or a power cut takes from the end of the trail's file stands in it. One thread
// at a time.
class TrailSlots {
public:
    explicit TrailSlots(data::SQLiteDatabase& database) : mDatabase(database) {}

    // What each slot holds.
    std::vector<std::string> read();

    // Puts lines into a slot, in the place of what is there, in the transaction that is open. What can't be written is
    // left out, with a line logged.
    void write(int slot, const std::string& lines);

    // What came of that transaction.
    void settle(bool isCommitted) { mHasTable = mHasTable || (mIsTableMade && isCommitted); }

    const data::SQLiteDatabase& database() const { return mDatabase; }

private:
    data::SQLiteDatabase& mDatabase;
    bool mHasTable = false;
    bool mIsTableMade = false;  // in the transaction that is open
};

}  // namespace sd
