// A database of version 2 for tests, made by tests/data/make_v2_database.sh under the key that this build has.
#pragma once

#include <stdexcept>
#include <string>

#include "sdtks_constants.h"
#include "tests/support/process.h"

namespace test {

// What leaves it as a store that was used since would; what is sealed there would need a key ring.
constexpr char kUsedSince[] =
    "CREATE TABLE secure_v3(id INTEGER PRIMARY KEY AUTOINCREMENT,key TEXT COLLATE NOCASE UNIQUE ON CONFLICT FAIL,"
    "value TEXT ); INSERT INTO secure_v3(key, value) VALUES('sd.ui.theme', '')";

template <std::size_t size>
std::string hex(const unsigned char (&bytes)[size]) {
    std::string text;
    for (const unsigned char byte : bytes) text.append({"0123456789abcdef"[byte >> 4], "0123456789abcdef"[byte & 15]});
    return text;
}

inline void makeLegacyDatabase(const std::string& file) {
    const Result made = run({"sh", LEGACY_DATABASE_SCRIPT, file, hex(sd::kLegacyKey), hex(sd::kLegacyIv)});
    if (made.exitCode != 0) throw std::runtime_error("no legacy database: " + made.err);
}

}  // namespace test
