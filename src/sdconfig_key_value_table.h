// The one form that every table of both databases has: id, key, value.
#pragma once

#include <cstddef>
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

// Appends the keys of all rows, in the order of the rows. False when the table can't be read.
bool keys(data::SQLiteTable& table, std::vector<std::string>& result);

// How many rows there are; 0 when the table can't be read.
std::size_t count(data::SQLiteTable& table);

}  // namespace sd::key_value
