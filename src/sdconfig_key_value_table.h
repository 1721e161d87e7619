// The one form that every table of both databases has: id, key, value.
#pragma once

#include <cstddef>
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

// How many rows there are, up to the first that can't be read; 0 when the table can't be read at all.
std::size_t count(data::SQLiteTable& table);

}  // namespace sd::key_value
