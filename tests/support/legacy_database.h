// A database of version 2 for tests, as the store of that version left it, made by OpenSSL and SQLite alone.
#pragma once

#include <string>

#include "sdtks_constants.h"

namespace test {

// What leaves it as a store that was used since would; what is sealed there would need a key ring.
constexpr char kUsedSince[] =
    "CREATE TABLE secure_v3(id INTEGER PRIMARY KEY AUTOINCREMENT,key TEXT COLLATE NOCASE UNIQUE ON CONFLICT FAIL,"
    "value TEXT ); INSERT INTO secure_v3(key, value) VALUES('sd.ui.theme', '')";

// The secure values are enciphered under the key that this build has.
void makeLegacyDatabase(const std::string& file);

}  // namespace test
