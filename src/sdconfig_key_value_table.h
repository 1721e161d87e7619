// The one form that every table of both databases has: id, key, value.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "sql/SQLiteTable.h"

namespace sd::key_value {

bool create(data::SQLiteTable& table);

// The value of the key; "" when there is none or the table can't be read.
std::string get(data::SQLiteTable& table, const std::string& key);

// Replaces the row of the same key, in whatever letter case.
bool set(data::SQLiteTable& table, const std::string& key, const std::string& value);

bool remove(data::SQLiteTable& table, const std::string& key);

// Removes a key's row and writes its new one, in one transaction and one durable commit. False, with the old row as it
// was, spelling included, when the new one could not be stored.
// removeOld: removes the old row. That it could not decides nothing, since the new row replaces what it left.
bool replace(data::SQLiteTable& table, const std::string& key, const std::string& value,
             const std::function<void()>& removeOld);

// Appends the keys of all rows, in the order of the rows; a row that can't be read ends them. False when the table
// can't be read at all.
bool keys(data::SQLiteTable& table, std::vector<std::string>& result);

// Whether there is a row of exactly this key, letter case included.
bool hasKey(data::SQLiteTable& table, const std::string& key);

// Whether there is no row, or none that can be read. Looks at the first one alone, whatever their number.
bool isEmpty(data::SQLiteTable& table);

// A row as it stands.
struct StoredRow {
    std::string id;
    std::string key;
    std::string value;
};

inline constexpr char kBeforeAllIds[] = "-9223372036854775808";

// Hands over the rows behind that of the id, in the order of their ids, until `take` returns false.
// False where the table can't be read, or not to its end.
bool walk(data::SQLiteTable& table, const std::string& afterId, const std::function<bool(StoredRow&&)>& take);

// The id of the last row; 0 where there is none or the table can't be read.
std::int64_t lastId(data::SQLiteTable& table);

// A value to take the place of the one that was read.
struct Replacement {
    StoredRow read;
    std::string value;
    bool done = false;  // false after replaceValues: the row has gone, or its value is another by now
};

// Writes all of them in one durable commit, each where the row is still as it was read. False, with nothing changed and
// a line logged, when they could not be stored.
bool replaceValues(data::SQLiteTable& table, std::vector<Replacement>& replacements);

// How many rows there are, up to the first that can't be read; 0 when the table can't be read at all.
std::size_t count(data::SQLiteTable& table);

}  // namespace sd::key_value
